#!/usr/bin/python3
"""Checks the export table of the Windows DLL against the public headers.

usage: check_exports.py OBJDUMP DLL INCLUDE-DIR OUT-DIR [HOST-COMMAND...]

The names the headers declare are read by the host C compiler itself
(gcc -aux-info lists every function prototype of the headers); the exported
names are read from the DLL's export table with the cross objdump. Both sets
must be equal (the test-only fault switch is never exported), and no name may
carry a stdcall decoration (@N). With a host command (the host program under
Wine), every name is then looked up with GetProcAddress by its plain name.
"""
import os
import re
import subprocess
import sys


def header_names(include_dir, out_dir):
    src = os.path.join(out_dir, "all_headers.c")
    aux = os.path.join(out_dir, "all_headers.aux")
    headers = sorted(h for h in os.listdir(os.path.join(include_dir, "zbshr")) if h.endswith(".h"))
    with open(src, "w") as f:
        for h in headers:
            f.write('#include "zbshr/%s"\n' % h)
    subprocess.run(["gcc", "-fsyntax-only", "-I", include_dir, "-aux-info", aux, src], check=True)
    names = set()
    with open(aux) as f:
        for line in f:
            m = re.match(r"/\* (\S+):\d+:\w+ \*/ (.*)", line)
            if not m or "/zbshr/" not in m.group(1).replace("\\", "/"):
                continue
            fm = re.search(r"(\w+) \(", m.group(2))
            if fm:
                names.add(fm.group(1))
    names -= {"zbshr_inject_fault", "zbshr_clear_faults"}
    return names


def export_names(objdump, dll):
    out = subprocess.run([objdump, "-p", dll], check=True, capture_output=True, text=True).stdout
    names, in_table = set(), False
    for line in out.splitlines():
        if line.startswith("[Ordinal/Name Pointer] Table"):
            in_table = True
            continue
        if in_table:
            m = re.match(r"\s*\[\s*\d+\]\s+(\S+)", line)
            if not m:
                if line.strip():
                    break
                continue
            names.add(m.group(1))
    return names


def main():
    if len(sys.argv) < 5:
        print(__doc__)
        return 2
    objdump, dll, include_dir, out_dir = sys.argv[1:5]
    host = sys.argv[5:]
    os.makedirs(out_dir, exist_ok=True)
    declared = header_names(include_dir, out_dir)
    exported = export_names(objdump, dll)
    data = {n for n in exported if n.startswith("shdec")}
    failed = False
    decorated = sorted(n for n in exported if "@" in n)
    if decorated:
        print("decorated exports:", " ".join(decorated[:10]))
        failed = True
    missing = sorted(declared - exported)
    extra = sorted(exported - declared - data)
    if missing:
        print("declared but not exported:", " ".join(missing))
        failed = True
    if extra:
        print("exported but not declared:", " ".join(extra))
        failed = True
    print("%d functions declared, %d names exported (%d constants)" %
          (len(declared), len(exported), len(data)))
    if host:
        names_file = os.path.join(out_dir, "names.txt")
        with open(names_file, "w") as f:
            f.write("\n".join(sorted(exported)) + "\n")
        r = subprocess.run(host + [dll, names_file], capture_output=True, text=True)
        print(r.stdout.replace("\r", ""), end="")
        if r.returncode != 0:
            print(r.stderr.replace("\r", ""), end="")
            failed = True
    print("FAILED" if failed else "OK")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
