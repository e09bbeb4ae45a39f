#!/usr/bin/env bash
# Builds the module and runs it in the development host under Wine, then shows its log.
set -euo pipefail
cd "$(dirname "$0")"
scripts/build.sh

root=build/wine
cmake/wine-prefix.sh setup "$root"
trap 'cmake/wine-prefix.sh teardown "$root" >/dev/null' EXIT
export LUMERA_WINE_ROOT="$PWD/$root" LUMERA_WINE_FLAVOUR=win10

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

echo "== lumerahost.exe runs LumeraPlg.dll for 3 seconds"
cmake/wine-run.sh build/bin/lumerahost.exe --seconds 3
echo "== the module's log ($logs/lumera.log)"
cat "$logs"/lumera.log 2>/dev/null || echo "(no log written: logcore.dll missing?)"
