#!/usr/bin/python3
"""Reads exported files back with real, independent readers and compares the
cells they see with what was exported.

usage: readers.py ZBSHR_PROGRAM WORK_FOLDER

The sample result set is written through `zbshr export` in every file format,
then read with:
  - xlrd (the BIFF stream), dbfread (dBase III), sqlite3 (the SQL script):
    Python modules;
  - LibreOffice headless (DIF, SYLK, WKS, CSV, BIFF, dBase III), all files
    converted to CSV in one invocation;
  - Gnumeric's ssconvert (the same files), as a second opinion.
A reader that is not installed is reported as SKIPPED and does not fail the
test. dBase II has no reader here; its bytes are checked by the unit tests.

Where a reader disagrees with the bytes on purpose (see docs/EXPORT.md), the
expectation below says so explicitly; everything else must match exactly.
"""

import csv
import datetime
import os
import re
import shutil
import subprocess
import sys

# ---------------------------------------------------------------- sample data

COLUMNS = [  # (name, type, width)
    ("name", "string", 24),
    ("qty", "number", None),
    ("price", "decimal", 2),
    ("day", "date", None),
    ("at", "time", None),
    ("stamp", "datetime", None),
]

# Python values: str, float, str (decimal text), date, (h, m, s, us), datetime; None = null.
ROWS = [
    ["O'Hara, Scarlett", 1.0, "1250.50", datetime.date(1998, 7, 4), (9, 15, 0, 0),
     datetime.datetime(1998, 7, 4, 12, 30, 45)],
    ['say "hi"', -2.5, "-12.25", datetime.date(2001, 1, 2), (23, 59, 59, 500000),
     datetime.datetime(2001, 1, 2, 0, 0, 1, 250000)],
    ["semi;colon", 0.0, "0.1", datetime.date(2000, 2, 29), (0, 0, 0, 0), None],
    [None, None, None, None, None, None],
    ["plain", 123456.75, "99999.99", datetime.date(2024, 12, 31), (12, 0, 1, 0),
     datetime.datetime(1999, 12, 31, 23, 59, 59)],
]


LONG_TEXT = "".join(chr(ord("a") + i % 26) for i in range(300))


def csv_cell(ctype, v):
    if v is None:
        return ""
    if ctype == "string":
        return '"' + v.replace('"', '""') + '"'
    if ctype == "number":
        return repr(v)
    if ctype == "decimal":
        return v
    if ctype == "date":
        return v.isoformat()
    if ctype == "time":
        h, m, s, us = v
        return "%02d:%02d:%02d" % (h, m, s) + (".%06d" % us if us else "")
    return v.isoformat(sep=" ")


def write_input(path):
    with open(path, "w", newline="") as f:
        f.write(",".join(n + ":" + t + (":%d" % w if w else "") for n, t, w in COLUMNS) + "\r\n")
        for row in ROWS:
            f.write(",".join(csv_cell(t, v) for (_, t, _), v in zip(COLUMNS, row)) + "\r\n")


# ---------------------------------------------------------------- canonical cells
# Every cell a reader shows is reduced to one of:
#   None, ("s", text), ("n", float), ("d", (y, m, d)), ("t", (h, m, s, us)),
#   ("dt", (y, m, d, h, m, s, us))
# so that a date shown as 7/4/1998 by one reader and as 07/04/98 by another
# compare equal, while a wrong day, a lost fraction or a changed text do not.

DATE_RES = [
    (re.compile(r"^(\d{1,2})/(\d{1,2})/(\d{4}|\d{2})$"), "mdy"),
    (re.compile(r"^(\d{4})-(\d{1,2})-(\d{1,2})$"), "ymd"),
    (re.compile(r"^(\d{4})/(\d{1,2})/(\d{1,2})$"), "ymd"),
]
TIME_RE = re.compile(r"^(\d{1,2}):(\d{2})(?::(\d{2}))?(?:[:.](\d{1,6}))?(?:\s*([AaPp][Mm]))?$")


def _year(y):
    y = int(y)
    if y < 100:
        y += 1900 if y >= 30 else 2000
    return y


def parse_date(t):
    for rx, order in DATE_RES:
        m = rx.match(t)
        if m:
            a, b, c = m.groups()
            if order == "mdy":
                return (_year(c), int(a), int(b))
            return (int(a), int(b), int(c))
    return None


def parse_time(t):
    m = TIME_RE.match(t)
    if not m:
        return None
    h, mi, s, frac, ampm = m.groups()
    h = int(h)
    if ampm:
        if ampm.lower() == "am" and h == 12:
            h = 0
        elif ampm.lower() == "pm" and h != 12:
            h += 12
    us = int((frac or "0").ljust(6, "0")) if frac else 0
    return (h, int(mi), int(s or 0), us)


def canon(v):
    if v is None:
        return None
    if isinstance(v, bool):
        return ("n", float(v))
    if isinstance(v, (int, float)):
        return ("n", float(v))
    if isinstance(v, datetime.datetime):
        return ("dt", (v.year, v.month, v.day, v.hour, v.minute, v.second, v.microsecond))
    if isinstance(v, datetime.date):
        return ("d", (v.year, v.month, v.day))
    t = str(v)
    if t.strip() == "":
        return None
    s = t.strip()
    try:
        return ("n", float(s))
    except ValueError:
        pass
    d = parse_date(s)
    if d:
        return ("d", d)
    tm = parse_time(s)
    if tm:
        return ("t", tm)
    parts = s.split(" ", 1)
    if len(parts) == 2:
        d, tm = parse_date(parts[0]), parse_time(parts[1].strip())
        if d and tm:
            return ("dt", d + tm)
    return ("s", t)


def expected(fmt, ctype, v):
    """The cell a faithful reader must show for value v of a column of type
    ctype exported as fmt, from the null and type rules of each format."""
    if v is None:
        if fmt in ("dif", "sylk", "dbase3") and ctype in ("number", "decimal"):
            return ("n", 0.0)  # these formats write a zero for a null number
        return None
    if ctype == "string":
        return ("s", v)
    if ctype == "number":
        return ("n", v)
    if ctype == "decimal":
        return ("n", float(v))
    if ctype == "date":
        return ("d", (v.year, v.month, v.day))
    if ctype == "time":
        if fmt == "dbase3":
            return ("t", v[:3] + (0,))  # the fraction is dropped
        return ("t", v)
    # datetime
    if fmt == "dbase3":
        return ("d", (v.year, v.month, v.day))  # a date field: the time is dropped
    return ("dt", (v.year, v.month, v.day, v.hour, v.minute, v.second, v.microsecond))


# ---------------------------------------------------------------- readers

class Result:
    def __init__(self):
        self.failures = 0
        self.checked = 0
        self.skipped = []

    def skip(self, what, why):
        print("SKIPPED %s: %s" % (what, why))
        self.skipped.append(what)


def crop(grid):
    """The used range of a grid: leading and trailing empty rows and columns
    removed (some readers export only the used range)."""
    cells = [(r, c) for r, row in enumerate(grid) for c, v in enumerate(row) if v is not None]
    if not cells:
        return []
    r0 = min(r for r, _ in cells)
    r1 = max(r for r, _ in cells)
    c0 = min(c for _, c in cells)
    c1 = max(c for _, c in cells)
    return [[(grid[r][c] if c < len(grid[r]) else None) for c in range(c0, c1 + 1)]
            for r in range(r0, r1 + 1)]


def compare(res, reader, fmt, grid, headings, quirk=None):
    """grid: list of rows of raw cells as the reader shows them. quirk, when
    given, maps (ctype, value, wanted cell) to the cell this reader is known to
    show instead, heading cells having ctype "heading"."""
    label = "%s reading %s" % (reader, fmt)
    q = quirk or (lambda ctype, v, want: want)
    want_rows = []
    if headings:
        want_rows.append([q("heading", (n, t, w), ("s", n)) for n, t, w in COLUMNS])
    for row in ROWS:
        want_rows.append([q(t, v, expected(fmt, t, v)) for (_, t, _), v in zip(COLUMNS, row)])
    got_rows = crop([[canon(c) for c in r] for r in grid])
    want_rows = crop(want_rows)
    bad = []
    nrows = max(len(got_rows), len(want_rows))
    for r in range(nrows):
        got_r = got_rows[r] if r < len(got_rows) else []
        want_r = want_rows[r] if r < len(want_rows) else []
        for c in range(max(len(got_r), len(want_r))):
            got = got_r[c] if c < len(got_r) else None
            want = want_r[c] if c < len(want_r) else None
            if got != want:
                bad.append("row %d col %d: got %r, want %r" % (r, c, got, want))
    res.checked += 1
    if bad:
        res.failures += 1
        print("FAIL %s:" % label)
        for b in bad[:20]:
            print("   ", b)
    else:
        print("ok   %s (%d rows)" % (label, nrows))


def read_xlrd(res, files):
    try:
        import xlrd
    except ImportError as e:
        res.skip("xlrd", "python3-xlrd is not installed (%s)" % e)
        return
    # There is no code-page record in the stream: name the encoding.
    book = xlrd.open_workbook(files["excel"], encoding_override="cp1252")
    sh = book.sheet_by_index(0)
    grid = []
    for r in range(sh.nrows):
        row = []
        for c in range(sh.ncols):
            cell = sh.cell(r, c)
            row.append(None if cell.ctype in (xlrd.XL_CELL_EMPTY, xlrd.XL_CELL_BLANK)
                       else cell.value)
        grid.append(row)
    compare(res, "xlrd", "excel", grid, True)
    # A 300-character text: the record holds all of it, but the count byte
    # says 300 mod 256 = 44, and that is what a reader takes.
    book = xlrd.open_workbook(files["excel_long"], encoding_override="cp1252")
    got = book.sheet_by_index(0).cell_value(0, 0)
    res.checked += 1
    if got != LONG_TEXT[:300 % 256]:
        res.failures += 1
        print("FAIL xlrd reading a 300-character label: got %r" % got)
    else:
        print("ok   xlrd reading a 300-character label (shows its first 44 characters)")


def read_dbfread(res, files):
    try:
        import dbfread
    except ImportError as e:
        res.skip("dbfread", "python3-dbfread is not installed (%s)" % e)
        return
    # The header carries no code page: name the encoding.
    table = dbfread.DBF(files["dbase3"], encoding="cp1252", char_decode_errors="strict")
    names = [f.name for f in table.fields]
    want_names = [n.upper()[:10] for n, _, _ in COLUMNS]
    res.checked += 1
    if names != want_names:
        res.failures += 1
        print("FAIL dbfread field names: %r, want %r" % (names, want_names))
    grid = [[rec[n] for n in names] for rec in table]
    compare(res, "dbfread", "dbase3", grid, False)


def read_sqlite(res, files):
    try:
        import sqlite3
    except ImportError as e:
        res.skip("sqlite3", "Python's sqlite3 module is not available (%s)" % e)
        return
    with open(files["sql"], encoding="cp1252") as f:
        script = f.read()
    db = sqlite3.connect(":memory:")
    try:
        db.executescript(script)
        grid = [list(r) for r in db.execute("SELECT * FROM out_sql")]
    except sqlite3.Error as e:
        res.checked += 1
        res.failures += 1
        print("FAIL sqlite3 running the SQL script: %s" % e)
        return
    compare(res, "sqlite3", "sql", grid, False)


def read_csv_file(path):
    with open(path, newline="", encoding="utf-8", errors="replace") as f:
        return [row for row in csv.reader(f)]


# The formats the spreadsheet programs are asked to open, with the heading
# rows they will see (dBase and DIF carry names as field names / labels).
SHEET_FORMATS = ["csv", "dif", "sylk", "excel", "wk", "dbase3"]


def sheet_headings(fmt):
    return True  # every file is exported with --headings, dBase has field names


def _round_half_away(x):
    return float(int(abs(x) + 0.5)) * (1 if x >= 0 else -1)


def sheet_quirk(reader, fmt):
    """Known, documented disagreements between a reader and the bytes
    (docs/EXPORT.md). Returns a function (ctype, value, want) -> shown cell."""
    rules = []
    if fmt == "dif":
        # The LABEL items of the header name the columns, but neither program
        # shows them as a row.
        rules.append(lambda t, v, w: None if t == "heading" else w)
    if fmt == "sylk" or (reader == "gnumeric" and fmt == "dif"):
        # The doubled quotes of the quoted string rule are shown as they stand.
        rules.append(lambda t, v, w: ("s", w[1].replace('"', '""'))
                     if t == "string" and w and '"' in w[1] else w)
    if reader == "gnumeric" and fmt == "sylk":
        # A semicolon ends the text: semicolons are not escaped.
        rules.append(lambda t, v, w: ("s", w[1].split(";")[0])
                     if t == "string" and w and ";" in w[1] else w)
    if reader == "gnumeric" and fmt == "excel":
        # Text cells vanish from a stream that has no FONT/XF records; dates
        # and times are text cells too.
        rules.append(lambda t, v, w: w if w is not None and w[0] == "n" else None)
    if fmt == "dbase3":
        if reader == "libreoffice":
            # Field names are shown with their type and size, and numbers are
            # rounded to the decimal count of the field, which is 0.
            def lo_dbf(t, v, w):
                if t == "heading":
                    n, ct, width = v
                    desc = ("C,%d" % width if ct == "string" else
                            {"number": "N,16,0", "decimal": "N,16,0", "date": "D",
                             "time": "C,8", "datetime": "D"}[ct])
                    return ("s", n.upper()[:10] + "," + desc)
                if w is not None and w[0] == "n":
                    return ("n", _round_half_away(w[1]))
                return w
            rules.append(lo_dbf)
        else:
            rules.append(lambda t, v, w: ("s", v[0].upper()[:10]) if t == "heading" else w)

    def apply(t, v, w):
        for rule in rules:
            w = rule(t, v, w)
        return w
    return apply


def read_libreoffice(res, files, work):
    soffice = shutil.which("soffice") or shutil.which("libreoffice")
    if not soffice:
        res.skip("LibreOffice", "soffice is not installed (Debian: libreoffice-calc-nogui, "
                 "libreoffice-base-drivers)")
        return
    out = os.path.join(work, "lo")
    os.makedirs(out, exist_ok=True)
    profile = os.path.join(work, "lo-profile")
    inputs = [files[f] for f in SHEET_FORMATS]
    cmd = [soffice, "-env:UserInstallation=file://" + os.path.abspath(profile), "--headless",
           "--norestore", "--convert-to", "csv:Text - txt - csv (StarCalc):44,34,76,1",
           "--outdir", out] + inputs
    try:
        subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=600,
                       check=False)
    except subprocess.TimeoutExpired:
        res.failures += 1
        print("FAIL LibreOffice did not finish converting within 10 minutes")
        return
    for fmt in SHEET_FORMATS:
        base = os.path.splitext(os.path.basename(files[fmt]))[0]
        got = os.path.join(out, base + ".csv")
        if not os.path.exists(got):
            res.checked += 1
            res.failures += 1
            print("FAIL LibreOffice did not convert %s" % files[fmt])
            continue
        compare(res, "LibreOffice", fmt, read_csv_file(got), sheet_headings(fmt),
                sheet_quirk("libreoffice", fmt))


def read_gnumeric(res, files, work):
    ssconvert = shutil.which("ssconvert")
    if not ssconvert:
        res.skip("Gnumeric", "ssconvert is not installed (Debian: gnumeric)")
        return
    out = os.path.join(work, "gnumeric")
    os.makedirs(out, exist_ok=True)
    for fmt in SHEET_FORMATS:
        got = os.path.join(out, fmt + ".csv")
        p = subprocess.run([ssconvert, "--export-type=Gnumeric_stf:stf_csv", files[fmt], got],
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=300,
                           check=False)
        if p.returncode != 0 or not os.path.exists(got):
            res.checked += 1
            res.failures += 1
            print("FAIL ssconvert could not read %s: %s" % (files[fmt],
                                                            p.stdout.decode(errors="replace")))
            continue
        compare(res, "Gnumeric", fmt, read_csv_file(got), sheet_headings(fmt),
                sheet_quirk("gnumeric", fmt))


def main():
    if len(sys.argv) != 3:
        print(__doc__)
        return 2
    zbshr, work = sys.argv[1], sys.argv[2]
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    src = os.path.join(work, "sample.csv")
    write_input(src)
    exts = {"csv": "csv", "sql": "sql", "dif": "dif", "sylk": "slk", "excel": "xls", "wk": "wks",
            "dbase3": "dbf"}
    files = {}
    for fmt, ext in exts.items():
        files[fmt] = os.path.join(work, "out_%s.%s" % (fmt, ext))
        args = [zbshr, "export", "--format", fmt]
        if fmt != "dbase3":
            args.append("--headings")
        p = subprocess.run(args + [src, files[fmt]], stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, check=False)
        if p.returncode != 0:
            print("FAIL zbshr export --format %s: %s" % (fmt, p.stdout.decode(errors="replace")))
            return 1
    long_src = os.path.join(work, "long.csv")
    with open(long_src, "w", newline="") as f:
        f.write("text:string\r\n" + LONG_TEXT + "\r\n")
    files["excel_long"] = os.path.join(work, "long.xls")
    p = subprocess.run([zbshr, "export", "--format", "excel", long_src, files["excel_long"]],
                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    if p.returncode != 0:
        print("FAIL zbshr export of a long label: %s" % p.stdout.decode(errors="replace"))
        return 1
    res = Result()
    read_xlrd(res, files)
    read_dbfread(res, files)
    read_sqlite(res, files)
    read_libreoffice(res, files, work)
    read_gnumeric(res, files, work)
    print("%d checks, %d failed, skipped: %s" % (res.checked, res.failures,
                                                 ", ".join(res.skipped) or "none"))
    return 1 if res.failures else 0


if __name__ == "__main__":
    sys.exit(main())
