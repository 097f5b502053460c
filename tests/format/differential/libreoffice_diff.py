#!/usr/bin/env python3
# Display masks rendered by the library (FORMAT_TABLE, from cases.tsv) and by LibreOffice headless (the same
# masks as cell formats of an .xlsx workbook converted to CSV), compared cell by cell; 77 when LibreOffice is
# not installed. usage: libreoffice_diff.py FORMAT_TABLE WORKDIR
import csv
import datetime
import os
import shutil
import subprocess
import sys
import zipfile
from xml.sax.saxutils import escape


# (kind, mask, value text) from cases.tsv; lines without a tab are comments.
with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "cases.tsv"), encoding="latin-1") as f:
    CASES = [tuple(line.split("\t")) for line in f.read().split("\n") if "\t" in line]


def serial(text):
    delta = datetime.datetime.strptime(text, "%Y-%m-%d %H:%M:%S.%f") - datetime.datetime(1899, 12, 30)
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
        return [r[0] if r else "" for r in csv.reader(f)] + [""] * len(CASES)


def main():
    driver, work = sys.argv[1], sys.argv[2]
    soffice = shutil.which("soffice") or shutil.which("libreoffice")
    if not soffice:
        print("SKIPPED: LibreOffice (soffice) is not installed")
        return 77
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    lines = "".join("%s\t%s\t%s\n" % c for c in CASES)
    ours = subprocess.run([driver], input=lines.encode(), capture_output=True, check=True).stdout.decode("latin-1")
    failed = 0
    for (kind, mask, v), a, b in zip(CASES, ours.split("\n"), libreoffice_outputs(soffice, work)):
        failed += a != b
        if a != b:
            print("MISMATCH %s %r %r: zbshr %r, LibreOffice %r" % (kind, mask, v, a, b))
    print("%d passed, %d failed" % (len(CASES) - failed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
