#!/bin/sh
# Runs the staged-boot test on a machine that "started" seconds ago: a time namespace whose
# clocks are set back to a few seconds of uptime, with a prefix and a wineserver of its own.
set -eu
prog="$1"
root=$(cd "$2" && pwd)
prefix=$(mktemp -d "$root/staged.XXXXXX")
trap 'rm -rf "$prefix"' EXIT
cp -a "$root/template/." "$prefix/"
up=$(cut -d. -f1 /proc/uptime)
back=$((up - 2))
unshare --user --map-root-user --time --fork --monotonic=-$back --boottime=-$back sh -c '
  export WINEPREFIX="$1" WINEDEBUG=-all
  wineserver -p3 </dev/null >/dev/null 2>&1
  rc=0
  wine "$2" --gtest_brief=1 || rc=$?
  wineserver -k 2>/dev/null || true
  exit $rc' sh "$prefix" "$prog"
