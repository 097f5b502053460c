#!/usr/bin/env python3
"""Display masks rendered by zbshr and by LibreOffice, compared.

Usage: libreoffice_diff.py FORMAT_TABLE WORKDIR

FORMAT_TABLE is the test driver that renders "kind<TAB>mask<TAB>value" lines
through the library. The same masks are written as cell formats of an .xlsx
workbook (one value per row), LibreOffice headless converts the workbook to
CSV "as shown" (one start for the whole table), and each cell's text is
compared with the library's. The masks are those whose meaning the two
languages share; the library's own codes are tested elsewhere.

Exits 77 (skipped) when LibreOffice is not installed.
"""
import csv
import datetime
import os
import shutil
import subprocess
import sys
import zipfile
from xml.sax.saxutils import escape

T = datetime.datetime(2003, 1, 2, 14, 5, 9, 123456)  # a Thursday

CASES = [
    # numbers: digits, rounding, grouping, literals, sections
    ("n", "00000", -42), ("n", "#", 0), ("n", "0", 2.5), ("n", "0", -2.5),
    ("n", "0.00", 1.005), ("n", "0.00", 2.675), ("n", "0.00", -0.001),
    ("n", "#,##0.00", 999.995), ("n", "#,##0.00", -1234567.891), ("n", "#.##", 1),
    ("n", "000-00-0000", 123456789), ("n", '#,##0"x"0', 12345),
    ("n", '"Total: "0.0', 2.25), ("n", "\\$0", 7),
    ("n", '0.00;(0.00);"zero"', -3.14159), ("n", '0.00;(0.00);"zero"', 0),
    ("n", "0.0;;", -5), ("n", "0.00%", 0.12345), ("n", "%0", 0.5),
    # exponents, engineering exponent
    ("n", "0.00E+00", 9.995), ("n", "0.00E+00", 12345), ("n", "0.0E-0", 12345),
    ("n", "0.00E+00", 0.000123), ("n", "##0.0E+0", 12345), ("n", "##0.0E+0", 0.00012345),
    ("n", "##0.0E+0", 999.96), ("n", "##0.00E+00", 1234567), ("n", "#.##E+00", 0),
    # the general form
    ("n", "General", 1.5), ("n", "General", -2.5), ("n", "General", 2 / 3),
    ("n", 'General" kg"', 3),
    # scaling commas
    ("n", "#,##0,", 1234567), ("n", "0.0,", 1234567), ("n", "#,##0,,", 1234567890),
    ("n", '0.0,,"M"', 1234567890),
    # '?' placeholders, spaces and fills
    ("n", "0.0?", 1.5), ("n", "??0.0?", 5.25), ("n", "0.00_)", 1.5), ("n", "0_-", 3),
    ("n", "*-0", 5), ("n", "0*x", 5),
    # fractions
    ("n", "# ?/?", 1.25), ("n", "# ??/??", 3.14159), ("n", "?/?", 1.25),
    ("n", "# ?/4", 2.3), ("n", "# ?/?", 0.25), ("n", "# ??/???", 0.3333),
    ("n", "# ?/?", -1.5), ("n", "0/100", 0.237),
    # colours (the text is unchanged) and conditions
    ("n", "[Red]0.00", 1.5), ("n", "[Blue]0;[Red]-0", -3), ("n", "0.00;[Red](0.00)", -2.5),
    ("n", "[Color12]0", 4), ("n", "[>100]0;0.00", 150), ("n", "[>100]0;0.00", 5),
    ("n", '[>=1000]#,##0,"K";0', 12345), ("n", '[>=1000]#,##0,"K";0', 12),
    ("n", "# ?/?", 2), ("n", "# ?/?", 0), ("n", "# ??/??", 5.999), ("n", "0.0?", 2),
    ("n", "?.??", 0.5), ("n", "#,##0.00_);(#,##0.00)", -1234.5), ("n", "0.0E+00", -0.00042),
    ("n", '[<0]"neg "0;"pos "0', -5), ("n", '[<0]"neg "0;"pos "0', 5),
    ("n", "[>=100][Red]0;[Blue]0", -5), ("n", "[<=-10]0.0;[>=10]0;0.00", -25),
    ("n", "[<=-10]0.0;[>=10]0;0.00", 25), ("n", "[<=-10]0.0;[>=10]0;0.00", -3),
    ('n', '[=1]0" item";0" items"', 1), ('n', '[=1]0" item";0" items"', 3),
    ("n", "0%%", 0.05),
    ("n", "#,##0.0,", 999.9), ("n", "0,000", 1234567), ("n", "#,###", 0), ("n", "0.##", 7),
    # dates and times
    ("d", "d dd ddd dddd", T), ("d", "m mm mmm mmmm mmmmm", T), ("d", "yy yyyy", T),
    ("d", "h m", T), ("d", "mm:ss", T), ("d", "hh:mm:ss", T),
    ("d", "h:mm AM/PM", datetime.datetime(2003, 1, 2, 0, 30)),
    ("d", "h:mm AM/PM", datetime.datetime(2003, 1, 2, 12, 0)),
    ("d", "hh:mm:ss.000", T), ("d", "ss.00", T), ("d", "[h]:mm", T), ("d", "[mm]:ss", T),
    ("d", "[ss]", T), ("d", "[h]:mm:ss", datetime.datetime(1900, 1, 3, 5, 6, 7)),
    ("d", "dddd d mmmm yyyy", datetime.datetime(2000, 2, 29)),
    ("d", "dddd", datetime.datetime(1900, 2, 28)), ("d", "dddd", datetime.datetime(1899, 12, 31)),
    ("d", "yyyy-mm-dd hh:mm", T), ("d", "dddd yyyy", datetime.datetime(1850, 6, 15)),
    ("d", "[hh]:mm", datetime.datetime(1899, 12, 30, 3, 4)), ("d", "mm/ss", T),
    ("d", "s.0", T), ("d", "d-mmm-yy", T), ("d", "[Red]d/m/yyyy", T),
    # strings
    ("s", "@", "John"), ("s", '"x: "@', "John"), ("s", "General", "as is"),
]


def value_text(kind, v):
    if kind == "d":
        return v.strftime("%Y-%m-%d %H:%M:%S.") + "%06d" % v.microsecond
    return repr(float(v)) if kind == "n" else v


def library_outputs(driver):
    lines = "".join("%s\t%s\t%s\n" % (k, m, value_text(k, v)) for k, m, v in CASES)
    r = subprocess.run([driver], input=lines.encode(), capture_output=True, check=True)
    out = r.stdout.decode("latin-1").split("\n")
    return out[: len(CASES)]


def serial(v):
    delta = v - datetime.datetime(1899, 12, 30)
    return delta.days + (delta.seconds + delta.microseconds / 1e6) / 86400


def write_xlsx(path):
    fmts, rows = [], []
    for i, (kind, mask, v) in enumerate(CASES):
        fmts.append('<numFmt numFmtId="%d" formatCode="%s"/>' % (164 + i, escape(mask, {'"': "&quot;"})))
        ref = "A%d" % (i + 1)
        if kind == "s":
            cell = '<c r="%s" s="%d" t="inlineStr"><is><t>%s</t></is></c>' % (ref, i + 1, escape(v))
        else:
            num = serial(v) if kind == "d" else float(v)
            cell = '<c r="%s" s="%d"><v>%r</v></c>' % (ref, i + 1, num)
        rows.append('<row r="%d">%s</row>' % (i + 1, cell))
    ns = "http://schemas.openxmlformats.org/spreadsheetml/2006/main"
    rel = "http://schemas.openxmlformats.org/officeDocument/2006/relationships"
    xfs = "".join('<xf numFmtId="%d" fontId="0" fillId="0" borderId="0" applyNumberFormat="1"/>'
                  % (164 + i) for i in range(len(CASES)))
    files = {
        "[Content_Types].xml":
            '<?xml version="1.0" encoding="UTF-8"?><Types xmlns="http://schemas.openxmlformats.org/package/2006/content-types">'
            '<Default Extension="rels" ContentType="application/vnd.openxmlformats-package.relationships+xml"/>'
            '<Default Extension="xml" ContentType="application/xml"/>'
            '<Override PartName="/xl/workbook.xml" ContentType="application/vnd.openxmlformats-officedocument.spreadsheetml.sheet.main+xml"/>'
            '<Override PartName="/xl/worksheets/sheet1.xml" ContentType="application/vnd.openxmlformats-officedocument.spreadsheetml.worksheet+xml"/>'
            '<Override PartName="/xl/styles.xml" ContentType="application/vnd.openxmlformats-officedocument.spreadsheetml.styles+xml"/>'
            '</Types>',
        "_rels/.rels":
            '<?xml version="1.0" encoding="UTF-8"?><Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">'
            '<Relationship Id="rId1" Type="%s/officeDocument" Target="xl/workbook.xml"/></Relationships>' % rel,
        "xl/workbook.xml":
            '<?xml version="1.0" encoding="UTF-8"?><workbook xmlns="%s" xmlns:r="%s"><sheets>'
            '<sheet name="T" sheetId="1" r:id="rId1"/></sheets></workbook>' % (ns, rel),
        "xl/_rels/workbook.xml.rels":
            '<?xml version="1.0" encoding="UTF-8"?><Relationships xmlns="http://schemas.openxmlformats.org/package/2006/relationships">'
            '<Relationship Id="rId1" Type="%s/worksheet" Target="worksheets/sheet1.xml"/>'
            '<Relationship Id="rId2" Type="%s/styles" Target="styles.xml"/></Relationships>' % (rel, rel),
        "xl/styles.xml":
            '<?xml version="1.0" encoding="UTF-8"?><styleSheet xmlns="%s"><numFmts count="%d">%s</numFmts>'
            '<fonts count="1"><font/></fonts><fills count="2"><fill><patternFill patternType="none"/></fill>'
            '<fill><patternFill patternType="gray125"/></fill></fills><borders count="1"><border/></borders>'
            '<cellStyleXfs count="1"><xf/></cellStyleXfs><cellXfs count="%d"><xf/>%s</cellXfs></styleSheet>'
            % (ns, len(fmts), "".join(fmts), len(CASES) + 1, xfs),
        "xl/worksheets/sheet1.xml":
            '<?xml version="1.0" encoding="UTF-8"?><worksheet xmlns="%s"><sheetData>%s</sheetData></worksheet>'
            % (ns, "".join(rows)),
    }
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as z:
        for name, text in files.items():
            z.writestr(name, text)


def libreoffice_outputs(soffice, work):
    book = os.path.join(work, "table.xlsx")
    write_xlsx(book)
    profile = "file://" + os.path.join(work, "profile")
    env = dict(os.environ, LC_ALL="C.UTF-8", LANG="C.UTF-8")
    subprocess.run([soffice, "-env:UserInstallation=" + profile, "--headless", "--norestore",
                    "--convert-to", "csv:Text - txt - csv (StarCalc):44,34,76,1,,1033,false,true,true",
                    "--outdir", work, book], check=True, capture_output=True, env=env, timeout=300)
    with open(os.path.join(work, "table.csv"), encoding="utf-8", newline="") as f:
        rows = list(csv.reader(f))
    return [r[0] if r else "" for r in rows] + [""] * (len(CASES) - len(rows))


def main():
    if len(sys.argv) != 3:
        print(__doc__)
        return 2
    driver, work = sys.argv[1], sys.argv[2]
    soffice = shutil.which("soffice") or shutil.which("libreoffice")
    if not soffice:
        print("SKIPPED: LibreOffice (soffice) is not installed")
        return 77
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    ours = library_outputs(driver)
    theirs = libreoffice_outputs(soffice, work)
    passed = failed = 0
    for (kind, mask, v), a, b in zip(CASES, ours, theirs):
        if a == b:
            passed += 1
        else:
            failed += 1
            print("MISMATCH %s %r %r: zbshr %r, LibreOffice %r" % (kind, mask, v, a, b))
    print("%d passed, %d failed" % (passed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
