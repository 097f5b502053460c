#!/bin/sh
# Prints the settings a test run must not change in a Wine prefix: the
# regional settings, the per-user software keys and the system win.ini.
#   wine-settings.sh WRAPPER   (the build folder's wine-run.sh)
set -e
run="$1"
out=$(mktemp -d)
for key in 'HKCU\Control Panel\International' 'HKCU\Software' 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\IniFileMapping'; do
  "$run" reg export "$key" 'Z:'"$out"'\k.reg' /y >/dev/null 2>&1 || true
  echo "== $key"
  # UTF-16 out of reg export; the scratch keys of tests are volatile, so
  # they are not expected here at all.
  [ -f "$out/k.reg" ] && iconv -f UTF-16 -t UTF-8 "$out/k.reg" | tr -d '\r' | sort
  rm -f "$out/k.reg"
done
prefix=$(sed -n 's/^WINEPREFIX="\${ZBSHR_WINEPREFIX:-\(.*\)}"$/\1/p' "$run")
echo "== win.ini"
cat "$prefix/drive_c/windows/win.ini" 2>/dev/null | tr -d '\r' || true
rm -rf "$out"
