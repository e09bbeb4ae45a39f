#!/bin/sh
# Installs the Wine stand-ins into a fresh copy of the template prefix and checks, inside it,
# that a program loading "Wevtapi.dll" by name gets the stand-in, and that diagperf.exe's
# event lands in the prefix's store.  install_test.sh WINE_ROOT BIN_DIR CHECK_EXE
set -eu
root=$1 bin=$2 check=$3
here=$(cd "$(dirname "$0")" && pwd)
prefix=$root/standins
export WINEDEBUG=-all WINEPREFIX=$prefix
trap 'wineserver -k 2>/dev/null || true' EXIT
wineserver -k 2>/dev/null || true
rm -rf "$prefix"
cp -a "$root/template" "$prefix"
"$here/../../winestandins/install.sh" "$prefix" "$bin/winestandins"
cp "$check" "$prefix/drive_c/stand_in_check.exe"
wine 'C:\stand_in_check.exe' | tee "$prefix/check1.txt"
grep -qi 'system32\\wevtapi.dll: 0 boot events' "$prefix/check1.txt"
wine diagperf.exe --idle-seconds 1 --idle-percent 0 --poll-ms 100 --max-seconds 30
test -s "$prefix/drive_c/ProgramData/WineStandIns/DiagnosticsPerformance.jsonl"
wine 'C:\stand_in_check.exe' | tee "$prefix/check2.txt"
grep -qi 'system32\\wevtapi.dll: 1 boot events' "$prefix/check2.txt"
