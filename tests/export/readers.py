#!/usr/bin/python3
# A sample of every type and null and a set of tricky values go through `zbshr export` in every format and
# are read back with xlrd, dbfread, sqlite3, LibreOffice headless and Gnumeric's ssconvert (the last two
# through CSV); a missing reader is SKIPPED. Known disagreements of a reader (docs/EXPORT.md) are stated; all
# else must match. usage: readers.py ZBSHR_PROGRAM WORK_FOLDER

import csv
import datetime
import decimal
import itertools
import math
import os
import re
import shutil
import sqlite3
import subprocess
import sys

COLUMNS = [("name", "string", 24), ("qty", "number", None), ("price", "decimal", 2), ("day", "date", None),
           ("at", "time", None), ("stamp", "datetime", None)]  # (name, type, width)

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


def csv_cell(ctype, v):
    if v is None:
        return ""
    if ctype == "time":
        return "%02d:%02d:%02d" % v[:3] + (".%06d" % v[3] if v[3] else "")
    if ctype == "string":
        return '"' + v.replace('"', '""') + '"'
    return {"number": repr, "decimal": str, "date": datetime.date.isoformat,
            "datetime": lambda x: x.isoformat(sep=" ")}[ctype](v)


def write_input(path, columns, rows):
    with open(path, "w", newline="", encoding="cp1252") as f:  # 8-bit text in the ANSI code page
        f.write(",".join(n + ":" + t + (":%d" % w if w else "") for n, t, w in columns) + "\r\n")
        for row in rows:
            f.write(",".join(csv_cell(t, v) for (_, t, _), v in zip(columns, row)) + "\r\n")


# The values where formats and readers part ways: line breaks and tabs inside texts, bytes above 0x7F, and
# numbers whose general text (15 significant digits) is longer than the buffer a format renders it into.
TRICKY_COLUMNS = [("text", "string", 40), ("num", "number", None), ("dec", "decimal", 28)]
TRICKY_ROWS = [
    ["line\nbreak", 1 / 3, "-0.0000000000000000000000012345"],
    ["tab\there", math.pi, "0.1234567890123"],
    ["caf\u00e9 \u00fc\u00f1", -math.pi, "-1234.5678901234"],
    ["two", 2.0 ** 53, "123456789012345678901234"],
    ["max", sys.float_info.max, "0.9999999999999999999"],
    ["tiny", sys.float_info.min, "-99999999999999.95"],
    ["third", 2 / 3, "-0.0000000000000000000000000001"],
    ["neg", -123456789012345.0, "12.5"],
]
# Characters a number may take in each text format (the buffer less its terminator; a dBase field is 16 wide).
NUMBER_ROOM = {"dif": 15, "dbase3": 16, "csv": 29, "sql": 29, "sylk": 29}


def general_fit(v, room):
    """"%.15G", with fewer digits while longer than room; never rounded past the largest double."""
    return next(t for t in ("%.*G" % (k, v) for k in range(15, 0, -1))
                if len(t) <= room and (t == "%.15G" % v or not math.isinf(float(t))))


def decimal_fit(text, room):
    """All digits, plain, with fewer (rounded half away from zero) while it does not fit; the exponent form
    only when no plain text fits."""
    d = decimal.Decimal(text)
    n = len(d.normalize().as_tuple().digits)
    rounded = [decimal.Context(prec=k, rounding=decimal.ROUND_HALF_UP).plus(d) for k in range(n, 0, -1)]
    plain = [format(q.normalize(), "f") if q != 0 else "0" for q in [d] + rounded[1:]]
    exp = [("%.*E" % (len(q.normalize().as_tuple().digits) - 1, q)).split("E") for q in rounded]
    return next(t for t in plain + [m + "E" + e[0] + e[1:].rjust(2, "0") for m, e in exp] if len(t) <= room)


# Every cell a reader shows is reduced to None, ("s", text), ("n", float), ("d", (y, m, d)),
# ("t", (h, m, s, us)) or ("dt", (y, m, d, h, m, s, us)): 7/4/1998 and 07/04/98 compare equal.

DATE_RE = re.compile(r"^(?:(\d{1,2})/(\d{1,2})/(\d{4}|\d{2})|(\d{4})[-/](\d{1,2})[-/](\d{1,2}))$")
TIME_RE = re.compile(r"^(\d{1,2}):(\d{2})(?::(\d{2}))?(?:[:.](\d{1,6}))?(?:\s*([AaPp][Mm]))?$")


def parse_date(t):
    # m/d/y (two-digit years 30-99 in the 1900s) or y-m-d
    m = DATE_RE.match(t)
    if not m:
        return None
    mo, d, y, y2, mo2, d2 = m.groups()
    if y is None:
        return (int(y2), int(mo2), int(d2))
    y = int(y)
    return (y + (0 if y >= 100 else 1900 if y >= 30 else 2000), int(mo), int(d))


def parse_time(t):
    m = TIME_RE.match(t)
    if not m:
        return None
    h, mi, s, frac, ampm = m.groups()
    h = int(h) % 12 + (12 if ampm and ampm.lower() == "pm" else 0) if ampm else int(h)
    return (h, int(mi), int(s or 0), int(frac.ljust(6, "0")) if frac else 0)


def canon(v):
    if v is None or isinstance(v, (bool, int, float)):
        return None if v is None else ("n", float(v))
    if isinstance(v, datetime.datetime):
        return ("dt", (v.year, v.month, v.day, v.hour, v.minute, v.second, v.microsecond))
    if isinstance(v, datetime.date):
        return ("d", (v.year, v.month, v.day))
    t = str(v)
    s = t.strip()
    if s == "":
        return None
    try:
        return ("n", float(s))
    except ValueError:
        pass
    if parse_date(s):
        return ("d", parse_date(s))
    if parse_time(s):
        return ("t", parse_time(s))
    parts = s.split(" ", 1)
    if len(parts) == 2 and parse_date(parts[0]) and parse_time(parts[1].strip()):
        return ("dt", parse_date(parts[0]) + parse_time(parts[1].strip()))
    return ("s", t)


def expected(fmt, ctype, v):
    if v is None:  # DIF, SYLK and dBase write a zero for a null number
        return ("n", 0.0) if fmt in ("dif", "sylk", "dbase3") and ctype in ("number", "decimal") else None
    if ctype == "string":
        return ("s", v)
    if ctype == "number":
        return ("n", float(general_fit(v, NUMBER_ROOM[fmt])) if fmt in NUMBER_ROOM else v)
    if ctype == "decimal":
        return ("n", float(decimal_fit(v, NUMBER_ROOM[fmt]) if fmt in NUMBER_ROOM else v))
    if ctype == "date":
        return ("d", (v.year, v.month, v.day))
    if ctype == "time":  # dBase drops the fraction
        return ("t", v[:3] + (0,) if fmt == "dbase3" else v)
    if fmt == "dbase3":  # a date field: the time is dropped
        return ("d", (v.year, v.month, v.day))
    return ("dt", (v.year, v.month, v.day, v.hour, v.minute, v.second, v.microsecond))


def crop(grid):
    """The used range of a grid (some readers export only that)."""
    cells = [(r, c) for r, row in enumerate(grid) for c, v in enumerate(row) if v is not None]
    if not cells:
        return []
    (r0, r1), (c0, c1) = ((min(x), max(x)) for x in zip(*cells))
    return [[(grid[r][c] if c < len(grid[r]) else None) for c in range(c0, c1 + 1)]
            for r in range(r0, r1 + 1)]


def compare(res, reader, fmt, grid, headings, quirk=None, data=None, digits=None):
    """quirk maps (ctype, value, wanted cell) to the cell this reader is known to show instead (headings
    have ctype "heading"); digits: the significant digits shown (all if None)."""
    columns, rows = data or (COLUMNS, ROWS)
    label = "%s reading %s%s" % (reader, fmt, "" if data is None else " (tricky values)")
    q = quirk or (lambda ctype, v, want: want)
    want_rows = [[q("heading", (n, t, w), ("s", n)) for n, t, w in columns]] if headings else []
    want_rows += [[q(t, v, expected(fmt, t, v)) for (_, t, _), v in zip(columns, row)] for row in rows]

    def shown(c):  # numbers with the digits the reader shows
        return ("n", "%.*g" % (digits, c[1])) if digits and c and c[0] == "n" else c
    got_rows = [[shown(c) for c in r] for r in crop([[canon(c) for c in r] for r in grid])]
    want_rows = [[shown(c) for c in r] for r in crop(want_rows)]
    nrows = max(len(got_rows), len(want_rows))
    bad = ["row %d col %d: got %r, want %r" % (r, c, got, want)
           for r, (got_r, want_r) in enumerate(itertools.zip_longest(got_rows, want_rows, fillvalue=[]))
           for c, (got, want) in enumerate(itertools.zip_longest(got_r, want_r)) if got != want]
    check(res, "%s (%d rows)" % (label, nrows), not bad, "\n    ".join([""] + bad[:20]))


TRICKY = (TRICKY_COLUMNS, TRICKY_ROWS)


def xlrd_grid(xlrd, path):
    # There is no code-page record in the stream: name the encoding.
    sh = xlrd.open_workbook(path, encoding_override="cp1252").sheet_by_index(0)
    return [[None if sh.cell(r, c).ctype in (xlrd.XL_CELL_EMPTY, xlrd.XL_CELL_BLANK)
             else sh.cell(r, c).value for c in range(sh.ncols)] for r in range(sh.nrows)]


def skip(res, what, why):
    print("SKIPPED %s: %s" % (what, why))
    res["skipped"].append(what)


def check(res, label, ok, detail=""):
    res["checked"] += 1
    res["failures"] += not ok
    print("ok   %s" % label if ok else "FAIL %s%s" % (label, (": " + detail) if detail else ""))


def read_xlrd(res, files):
    try:
        import xlrd
    except ImportError as e:
        return skip(res, "xlrd", "python3-xlrd is not installed (%s)" % e)
    compare(res, "xlrd", "excel", xlrd_grid(xlrd, files["excel"]), True)
    compare(res, "xlrd", "excel", xlrd_grid(xlrd, files["t_excel"]), True, data=TRICKY)


def read_dbfread(res, files):
    try:
        import dbfread
    except ImportError as e:
        return skip(res, "dbfread", "python3-dbfread is not installed (%s)" % e)
    for key, data in (("dbase3", None), ("t_dbase3", TRICKY)):
        # The header carries no code page: name the encoding.
        table = dbfread.DBF(files[key], encoding="cp1252", char_decode_errors="strict")
        names = [f.name for f in table.fields]
        want_names = [n.upper()[:10] for n, _, _ in (data or (COLUMNS,))[0]]
        check(res, "dbfread field names of %s" % key, names == want_names,
              "%r, want %r" % (names, want_names))
        grid = [[rec[n] for n in names] for rec in table]
        compare(res, "dbfread", "dbase3", grid, False, data=data)


def read_sqlite(res, files):
    for key, table, data in (("sql", "out_sql", None), ("t_sql", "out_t_sql", TRICKY)):
        db = sqlite3.connect(":memory:")
        with open(files[key], encoding="cp1252") as f:
            db.executescript(f.read())  # an error here fails the run
        grid = [list(r) for r in db.execute("SELECT * FROM " + table)]
        compare(res, "sqlite3", "sql", grid, False, data=data)


# The tricky values are not read from CSV: a line break inside a text starts a new row there, by design.
TRICKY_FORMATS = ["dif", "sylk", "excel", "wk", "dbase3"]


def sheet_quirk(reader, fmt):
    """Known disagreements between a reader and the bytes: a function (ctype, value, want) -> shown cell."""
    rules = []

    def text_rule(applies, change):
        rules.append(lambda t, v, w: ("s", change(w[1])) if t == "string" and w and applies(w[1]) else w)

    def high(x):
        return any(ord(ch) > 0x7F for ch in x)

    if fmt == "dif":  # the LABEL items name the columns, but neither program shows them as a row
        rules.append(lambda t, v, w: None if t == "heading" else w)
    if fmt == "sylk" or (reader == "gnumeric" and fmt == "dif"):
        # The doubled quotes of the quoted string rule are shown as they stand.
        text_rule(lambda x: '"' in x, lambda x: x.replace('"', '""'))
    if reader == "gnumeric" and fmt == "sylk":  # a semicolon ends the text: they are not escaped
        text_rule(lambda x: ";" in x, lambda x: x.split(";")[0])

    if fmt == "sylk":
        # A line break inside a text ends the record: the text is cut there.
        text_rule(lambda x: "\n" in x, lambda x: x.split("\n")[0])
    if reader == "gnumeric" and fmt == "dif":
        # A line break inside a text: the opening quote and the text up to it.
        text_rule(lambda x: "\n" in x, lambda x: '"' + x.split("\n")[0])
    if reader == "libreoffice" and fmt == "sylk":
        # Bytes above 0x7F are not taken as ANSI text: each becomes U+FFFD.
        text_rule(high, lambda x: "".join("\ufffd" if ord(ch) > 0x7F else ch for ch in x))
    if reader == "libreoffice" and fmt == "wk":
        # Tabs and line breaks inside labels are dropped.
        text_rule(lambda x: "\t" in x or "\n" in x, lambda x: x.replace("\t", "").replace("\n", ""))
    # Labels and dBase texts carry no code page: the programs take DOS ones.
    for who, f, page in (("libreoffice", "wk", "cp437"), ("gnumeric", "wk", "cp850"),
                         ("libreoffice", "dbase3", "cp850")):
        if reader == who and fmt == f:
            text_rule(high, lambda x, page=page: x.encode("cp1252").decode(page))
    if reader == "libreoffice":
        # A text past the largest double is read as the largest double.
        rules.append(lambda t, v, w: ("n", math.copysign(sys.float_info.max, w[1]))
                     if t in ("number", "decimal") and w and w[0] == "n" and math.isinf(w[1])
                     and not math.isinf(float(v)) else w)
    if reader == "gnumeric" and fmt == "excel":
        # Text cells (dates and times too) vanish from a stream that has no FONT/XF records.
        rules.append(lambda t, v, w: w if w is not None and w[0] == "n" else None)
    if fmt == "dbase3":  # field names (LibreOffice adds their type and size)
        desc = {"string": "C,%d", "number": "N,16,0", "decimal": "N,16,0", "date": "D", "time": "C,8", "datetime": "D"}
        rules.append(lambda t, v, w: w if t != "heading" else ("s", v[0].upper()[:10] + (
            "," + desc[v[1]].replace("%d", str(v[2])) if reader == "libreoffice" else "")))

    def apply(t, v, w):
        for rule in rules:
            w = rule(t, v, w)
        return w
    return apply


def read_sheets(res, files, work):
    soffice = shutil.which("soffice") or shutil.which("libreoffice")
    ssconvert = shutil.which("ssconvert")
    checks = [(files[f], f, None) for f in ["csv"] + TRICKY_FORMATS] + [(files["t_" + f], f, TRICKY) for f in TRICKY_FORMATS]
    lo_out, gn_out = os.path.join(work, "lo"), os.path.join(work, "gnumeric")
    if soffice:
        os.makedirs(lo_out, exist_ok=True)
        profile = "file://" + os.path.abspath(os.path.join(work, "lo-profile"))
        subprocess.run([soffice, "-env:UserInstallation=" + profile, "--headless", "--norestore",
                        "--convert-to", "csv:Text - txt - csv (StarCalc):44,34,76,1,,0,false,true,false",
                        "--outdir", lo_out] + [c[0] for c in checks],
                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=600, check=False)
    else:
        skip(res, "LibreOffice", "soffice is not installed (Debian: libreoffice-calc-nogui, libreoffice-base-drivers)")
    os.makedirs(gn_out, exist_ok=True)
    if not ssconvert:
        skip(res, "Gnumeric", "ssconvert is not installed (Debian: gnumeric)")

    def lo_converted(path):
        got = os.path.join(lo_out, os.path.splitext(os.path.basename(path))[0] + ".csv")
        return got if os.path.exists(got) else None

    def gn_converted(path):
        got = os.path.join(gn_out, os.path.basename(path) + ".csv")
        p = subprocess.run([ssconvert, "--export-type=Gnumeric_stf:stf_csv", path, got],
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=300, check=False)
        return got if p.returncode == 0 and os.path.exists(got) else None

    for reader, present, converted in (("LibreOffice", soffice, lo_converted), ("Gnumeric", ssconvert, gn_converted)):
        for path, fmt, data in checks if present else []:
            got = converted(path)
            if got is None:
                check(res, "%s converting %s" % (reader, path), False)
                continue
            # LibreOffice's CSV writes values with 15 significant digits (8 for a worksheet)
            digits = (8 if fmt == "wk" else 15) if reader == "LibreOffice" else None
            with open(got, newline="", encoding="utf-8", errors="replace") as f:
                grid = list(csv.reader(f))
            compare(res, reader, fmt, grid, True, sheet_quirk(reader.lower(), fmt),
                    data=data, digits=digits)


def main():
    zbshr, work = sys.argv[1], sys.argv[2]
    # A Windows build runs under Wine through a launcher script (run-*.sh), given Windows names (Z: is the root).
    under_wine = os.path.basename(zbshr).startswith("run-") and zbshr.endswith(".sh")

    def native(path):
        return "Z:" + os.path.abspath(path).replace("/", "\\") if under_wine else path
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    src, tricky = os.path.join(work, "sample.csv"), os.path.join(work, "tricky.csv")
    write_input(src, COLUMNS, ROWS)
    write_input(tricky, TRICKY_COLUMNS, TRICKY_ROWS)
    exts = {"csv": "csv", "sql": "sql", "dif": "dif", "sylk": "slk", "excel": "xls", "wk": "wks", "dbase3": "dbf"}
    # (key, format, input, extra options); --force: the tricky numbers are written shortened where too long
    jobs = [(f, f, src, []) for f in exts] + [("t_" + f, f, tricky, ["--force"]) for f in exts if f != "csv"]
    files = {}
    for key, fmt, source, extra in jobs:
        files[key] = os.path.join(work, "out_%s.%s" % (key, exts[fmt]))
        heads = ["--headings"] if fmt != "dbase3" else []
        p = subprocess.run([zbshr, "export", "--format", fmt] + heads + extra + [native(source), native(files[key])],
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        if p.returncode != 0:
            print("FAIL zbshr export --format %s %s: %s" % (fmt, source, p.stdout.decode(errors="replace")))
            return 1
    res = {"checked": 0, "failures": 0, "skipped": []}
    for reader in (read_xlrd, read_dbfread, read_sqlite):
        reader(res, files)
    read_sheets(res, files, work)
    print("%(checked)d checks, %(failures)d failed, skipped: " % res + (", ".join(res["skipped"]) or "none"))
    return 1 if res["failures"] else 0


if __name__ == "__main__":
    sys.exit(main())
