#!/usr/bin/env bash
# The module measures a whole boot staged under Wine (see scripts/staged-boot.sh) reporting the
# given Windows flavour, with workload.exe in the staged user's Run key and two short entries the
# user delayed; staged_boot_check.exe then judges the stored results and the delayed starts.
#   staged_boot_test.sh BIN CHECK_EXE OUT win7|win10
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../../scripts/staged-boot.sh"

if [ "${1:-}" = --inside ]; then
  check=$2
  staged_start
  staged_logon_at 10
  if ! staged_wait 'OnDataAnalysed error code' 180; then
    if grep -q 'boot-time processing is not available in this build' "$STAGED_LOG"; then
      echo "skipped: this build's boot-time plug-in has no processing run" >&2
      exit 77
    fi
    echo "the module did not finish measuring the boot; the end of its log:" >&2
    tail -n 30 "$STAGED_LOG" >&2
    exit 1
  fi
  # The report thread starts after the files are stored; the process-impact and the startup
  # reports have a bounded moment to arrive.
  for _ in $(seq 80); do
    grep -q 'workload.exe' "$STAGED_CENTRAL_JSON" 2>/dev/null && grep -q '"apps"' "$STAGED_CENTRAL_JSON" && break
    sleep 0.25
  done
  # StartLauncher.exe /delayed starts the delayed entries once the module has answered; a
  # missing report is the check's to name.
  for _ in $(seq 120); do
    [ -s "$STAGED_DELAYED_RUN_REPORT" ] && [ -s "$STAGED_DELAYED_SHORTCUT_REPORT" ] && break
    sleep 0.25
  done
  STAGED_OUT=$(staged_winpath "$STAGED_OUT") WINEDEBUG=-all wine "$check" --gtest_brief=1
  exit $?
fi

STAGED_PROGRESS=0
staged_init "$3" "$1"
staged_prepare --flavour "$4" --busy-ms 3000 --write-mb 8 --quiet-ms 3000
# The prefix is a 700 MB copy; the log and the results stay.
trap 'rm -rf "$STAGED_PREFIX"' EXIT
staged_enter "$0" --inside "$2"
