#!/bin/sh
# Installs the Wine stand-ins into a Wine prefix (never on Windows, never beside the host):
#   winestandins/install.sh PREFIX [BIN]     BIN defaults to build/bin/winestandins
# - wevtapi.dll into the prefix's system32, with the prefix's DllOverrides value
#   wevtapi=native,builtin so that every process of the prefix (services included) loads it
#   instead of Wine's builtin, whose event-log functions are stubs;
# - diagperf.exe into system32, to be started in the prefix once it boots (wine diagperf.exe);
# - stageduser.exe, stagedlogon.exe and lumeradecoy.exe into system32: the staged second user,
#   its logon, and the program the decoys copy (wine stageduser.exe create NAME, ...).
# The boot events are stored in the prefix's C:\ProgramData\WineStandIns\; events of earlier
# boots stay there.
set -eu
prefix=${1:?usage: install.sh PREFIX [BIN]}
here=$(cd "$(dirname "$0")" && pwd)
bin=${2:-$here/../build/bin/winestandins}
system32=$prefix/drive_c/windows/system32
programs="diagperf.exe stageduser.exe stagedlogon.exe lumeradecoy.exe"
for f in wevtapi.dll $programs; do
  [ -f "$bin/$f" ] || { echo "install.sh: build first ($bin/$f is missing)" >&2; exit 1; }
done
[ -d "$system32" ] || { echo "install.sh: $prefix is not a Wine prefix" >&2; exit 1; }
for f in wevtapi.dll $programs; do cp "$bin/$f" "$system32/"; done
WINEPREFIX=$prefix WINEDEBUG=-all wine reg add 'HKCU\Software\Wine\DllOverrides' /v wevtapi /d native,builtin /f >/dev/null
