#!/bin/sh
# Prepares (setup) or stops (teardown) the private Wine prefixes the tests run in.
# A template prefix is made once; each run copies it afresh so tests start from a clean registry.
set -eu
cmd="$1"
mkdir -p "$2"
# Wine accepts only an absolute prefix path.
root=$(cd "$2" && pwd)
flavours="win7 win10"
export WINEDEBUG=-all

case "$cmd" in
setup)
  mkdir -p "$root"
  if [ ! -f "$root/template/.ready" ]; then
    rm -rf "$root/template"
    WINEPREFIX="$root/template" wineboot -i >/dev/null 2>&1
    # A crashing test must end at once instead of waiting for a debugger.
    WINEPREFIX="$root/template" wine reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /v Debugger /d false /f >/dev/null 2>&1
    WINEPREFIX="$root/template" wine reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /v Auto /d 1 /f >/dev/null 2>&1
    WINEPREFIX="$root/template" wineserver -w
    touch "$root/template/.ready"
  fi
  for f in $flavours; do
    WINEPREFIX="$root/$f" wineserver -k 2>/dev/null || true
    rm -rf "$root/$f"
    cp -a "$root/template" "$root/$f"
    # A persistent server first: every later wine process then starts in milliseconds.
    # Its output must not hold the caller's pipes open (CTest waits for them to close).
    WINEPREFIX="$root/$f" wineserver -p </dev/null >/dev/null 2>&1
    # The first program in a prefix starts Wine's long-lived system processes; they must
    # start here, detached from any test's output.
    WINEPREFIX="$root/$f" wine cmd /c exit </dev/null >/dev/null 2>&1
  done
  WINEPREFIX="$root/win10" wine reg add 'HKCU\Software\Wine' /v Version /d win10 /f >/dev/null 2>&1
  echo "wine prefixes ready in $root ($flavours)"
  ;;
teardown)
  for f in $flavours; do
    [ -d "$root/$f" ] && WINEPREFIX="$root/$f" wineserver -k 2>/dev/null || true
  done
  echo "wine servers stopped"
  ;;
*)
  echo "usage: $0 setup|teardown ROOT" >&2; exit 2 ;;
esac
