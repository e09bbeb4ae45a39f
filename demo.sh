#!/usr/bin/env bash
# Builds everything, then under Wine: runs the module in the development host, queries it
# over "boottimepipe" with boottime.exe, manages a startup entry with startupctl.exe, and
# shows the module's log.
set -euo pipefail
cd "$(dirname "$0")"
scripts/build.sh

root=build/wine
cmake/wine-prefix.sh setup "$root"
trap 'cmake/wine-prefix.sh teardown "$root" >/dev/null' EXIT
export LUMERA_WINE_ROOT="$PWD/$root" LUMERA_WINE_FLAVOUR=win10
run() { cmake/wine-run.sh "$@"; }
step() { printf '\n== %s\n' "$*"; }

logs=build/demo-logs
rm -rf "$logs" && mkdir -p "$logs"
# Windows sees the Linux file system as drive Z:.
winpath() { printf 'Z:%s' "$1" | sed 's|/|\\\\|g'; }
cat > build/bin/lumerahost.json <<JSON
{
  "objects": ["boottime", "boottimecomm", "boottimecommclient"],
  "folders": {"2:common": "$(winpath "$PWD/build/demo-data")"},
  "log": {"folder": "$(winpath "$PWD/$logs")", "level": 32, "console": false}
}
JSON

step "lumerahost.exe loads LumeraPlg.dll and runs its three objects for 12 seconds"
run build/bin/lumerahost.exe --seconds 12 &
host=$!
for _ in $(seq 50); do grep -q 'boottimecommclient created' "$logs/lumera.log" 2>/dev/null && break; sleep 0.2; done

step "boottime.exe asks the module over \"boottimepipe\" (no boot has been measured in this prefix)"
for query in time total impact disk; do
  echo "\$ boottime.exe $query"
  run build/bin/boottime.exe "$query" || true
done
echo "\$ boottime.exe disk --json --async"
run build/bin/boottime.exe disk --json --async || true

step "startupctl.exe manages the programs that start with Windows"
run reg add 'HKCU\Software\Microsoft\Windows\CurrentVersion\Run' /v LumeraDemo /d 'C:\windows\system32\notepad.exe /min' /f >/dev/null 2>&1
for args in "list" "disable LumeraDemo" "list" "enable LumeraDemo" "list --json"; do
  echo "\$ startupctl.exe $args"
  # shellcheck disable=SC2086
  run build/bin/startupctl.exe $args || true
done
run reg delete 'HKCU\Software\Microsoft\Windows\CurrentVersion\Run' /v LumeraDemo /f >/dev/null 2>&1 || true

wait "$host" || true
step "the module's log ($logs/lumera.log), first and last lines"
head -n 40 "$logs/lumera.log"
echo "   ..."
tail -n 25 "$logs/lumera.log"
