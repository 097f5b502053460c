#!/usr/bin/env bash
# Runs the memory benchmark programs back to back and prints the ratios of
# zbstg's time to each peer's (below 1.0: zbstg is faster).
#   bench/memory/run.sh [build-dir]      (default: build/bench)
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="${1:-$here/../../build/bench}"
dir="$build/bench/memory"
out="$(mktemp -d)"
trap 'rm -rf "$out"' EXIT
for prog in zbstg glibc mimalloc apr; do
  exe="$dir/bench_mem_$prog"
  if [ ! -x "$exe" ]; then
    echo "skipping $prog: $exe not built" >&2
    continue
  fi
  "$exe" --benchmark_repetitions="${REPS:-5}" --benchmark_report_aggregates_only=true \
         --benchmark_format=json --benchmark_out="$out/$prog.json" \
         --benchmark_out_format=json >/dev/null
done
python3 - "$out" <<'PY'
import json, os, sys
out = sys.argv[1]
res = {}
for f in sorted(os.listdir(out)):
    prog = f[:-5]
    for b in json.load(open(os.path.join(out, f)))["benchmarks"]:
        if b.get("aggregate_name") != "median":
            continue
        name = b["run_name"].split("/")[0]
        scale = {"ns": 1, "us": 1e3, "ms": 1e6}[b["time_unit"]]
        res.setdefault(name, {})[prog] = b["cpu_time"] * scale
for name, by in sorted(res.items()):
    print(f"{name} (median CPU time per iteration)")
    for prog, t in sorted(by.items(), key=lambda kv: kv[1]):
        unit, div = ("ms", 1e6) if t > 1e6 else ("ns", 1)
        print(f"  {prog:9s} {t / div:10.2f} {unit}")
    if "zbstg" in by:
        for prog, t in sorted(by.items()):
            if prog != "zbstg":
                print(f"  ratio zbstg/{prog}: {by['zbstg'] / t:.2f}")
PY
