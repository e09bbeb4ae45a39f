#!/bin/sh
# Runs a Windows program under Wine in the build's private prefix.
# LUMERA_WINE_FLAVOUR picks the prefix (win7 or win10); LUMERA_WINE_ROOT the folder of prefixes.
set -e
prog="$1"
if [ -z "${LUMERA_WINE_ROOT:-}" ]; then
  dir=$(cd "$(dirname "$prog")" && pwd)
  while [ "$dir" != "/" ] && [ ! -f "$dir/CMakeCache.txt" ]; do dir=$(dirname "$dir"); done
  LUMERA_WINE_ROOT="$dir/wine"
else
  LUMERA_WINE_ROOT=$(cd "$LUMERA_WINE_ROOT" && pwd)
fi
export WINEPREFIX="$LUMERA_WINE_ROOT/${LUMERA_WINE_FLAVOUR:-win7}"
export WINEDEBUG=-all
exec wine "$@"
