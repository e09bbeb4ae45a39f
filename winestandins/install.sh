#!/bin/sh
# Installs the Wine stand-ins into a Wine prefix (never on Windows, never beside the host):
#   winestandins/install.sh PREFIX [BIN]     BIN defaults to build/bin/winestandins
# - wevtapi.dll into the prefix's system32, with the prefix's DllOverrides value
#   wevtapi=native,builtin so that every process of the prefix (services included) loads it
#   instead of Wine's builtin, whose event-log functions are stubs;
# - diagperf.exe into system32, to be started in the prefix once it boots (wine diagperf.exe).
# The boot events are stored in the prefix's C:\ProgramData\WineStandIns\; events of earlier
# boots stay there.
set -eu
prefix=${1:?usage: install.sh PREFIX [BIN]}
here=$(cd "$(dirname "$0")" && pwd)
bin=${2:-$here/../build/bin/winestandins}
system32=$prefix/drive_c/windows/system32
[ -f "$bin/wevtapi.dll" ] && [ -f "$bin/diagperf.exe" ] || { echo "install.sh: build first ($bin)" >&2; exit 1; }
[ -d "$system32" ] || { echo "install.sh: $prefix is not a Wine prefix" >&2; exit 1; }
cp "$bin/wevtapi.dll" "$bin/diagperf.exe" "$system32/"
WINEPREFIX=$prefix WINEDEBUG=-all wine reg add 'HKCU\Software\Wine\DllOverrides' /v wevtapi /d native,builtin /f >/dev/null
