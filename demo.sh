#!/usr/bin/env bash
# A whole Windows boot staged under Wine and measured by the module: the development host is an
# auto-start service of a fresh prefix whose machine started seconds ago; nobody is logged on
# until "stageduser", a second identity beside the Wine account the service runs as, logs on at
# about 10 s and the logon starts its Run-key and Startup-folder programs (among them
# workload.exe: CPU, then disk, then quiet), and StartLauncher.exe /delayed, which starts the
# Run entry and the Startup-folder shortcut the user delayed once the boot is over; the service's
# account holds decoys the module must leave alone. The module decides when the boot is over,
# analyses, measures the disk, stores its two files and reports to lumeracentral.exe; the demo
# then shows the results and restarts the service in the same boot, which reloads them from the
# files.
set -euo pipefail
cd "$(dirname "$0")"
source scripts/staged-boot.sh
source scripts/boot-summary.sh

LOGON_AT=10
WORKLOAD=(--busy-ms 3000 --write-mb 8 --quiet-ms 5000)
step() { printf '\n== %s\n' "$*"; }

if [ "${1:-}" != --inside ]; then
  scripts/build.sh
  began=$(date +%s)
  staged_init build/demo build/bin
  step "a fresh prefix: lumerahost.exe installed as an auto-start service; user $STAGED_USER with workload.exe in its Run key, a light one in its Startup folder, a Run entry and a shortcut it delayed; decoys in the service's account"
  staged_prepare "${WORKLOAD[@]}"
  staged_enter "$0" --inside
  step "done in $(($(date +%s) - began)) s; nothing of the demo is left running"
  exit 0
fi

step "the machine starts; the service host loads LumeraPlg.dll; nobody is logged on"
staged_start
staged_logon_at "$LOGON_AT"
step "$(awk '$1 == "logon" {print $2}' "$STAGED_TIMES") s: $STAGED_USER logs on; stagedlogon.exe starts the Run-key and Startup-folder programs"
summary_logon
if ! staged_wait 'OnDataAnalysed error code' 150; then
  echo "the module did not finish measuring the boot; the end of its log:" >&2
  tail -n 20 "$STAGED_LOG" >&2
  exit 1
fi
status=$(grep -o 'OnDataAnalysed error code [0-9]*' "$STAGED_LOG" | tail -n1 | awk '{print $4}')
echo "  the module finished at $(staged_uptime) s since boot with status $status"
# The report thread starts after the files are stored; give it a bounded moment to arrive.
for _ in $(seq 40); do [ -s "$STAGED_CENTRAL_JSON" ] && break; sleep 0.25; done

step "boot time"
summary_boot_time
if [ -s "$STAGED_WORKLOAD_REPORT" ]; then
  echo "  workload.exe     $(sed 's/[{}"]//g; s/\\\\/\\/g' "$STAGED_WORKLOAD_REPORT")"
fi
# StartLauncher.exe /delayed starts the entries delayed before the boot once the module has answered.
for _ in $(seq 120); do [ -s "$STAGED_DELAYED_RUN_REPORT" ] && [ -s "$STAGED_DELAYED_SHORTCUT_REPORT" ] && break; sleep 0.25; done
summary_delayed "delayed Run" "$STAGED_DELAYED_RUN_REPORT"
summary_delayed "delayed shortcut" "$STAGED_DELAYED_SHORTCUT_REPORT"
for _ in $(seq 20); do [ -s "$STAGED_OUT/monitor-cost.txt" ] && break; sleep 0.1; done
if [ -s "$STAGED_OUT/monitor-cost.txt" ]; then
  awk '{ printf "  monitor cost     %d ms of host CPU in %.1f s of monitoring (%.2f %% of one core)\n", $1, $2 / 1000, $2 ? 100 * $1 / $2 : 0 }' \
    "$STAGED_OUT/monitor-cost.txt"
fi
step "boot impact, heaviest first"
summary_blame
step "disk speed"
summary_disk
step "startup apps"
summary_startup_apps
step "what lumeracentral.exe received"
summary_central
step "the decoys of the service's account"
summary_decoys
step "files"
echo "  log           $STAGED_LOG"
echo "  launcher log  $STAGED_USER_LOG"
echo "  boot time     $STAGED_DATA/velora/last_boot_time_information.json"
echo "  boot impact   $STAGED_DATA/velora/last_boot_time_process_impact.json"

step "the service restarts in the same boot: the results come back from the files, not from a new measurement"
before=$(staged_count 'OnDataAnalysed error code')
staged_restart_service
for _ in $(seq 80); do [ "$(staged_count 'OnDataAnalysed error code')" -gt "$before" ] && break; sleep 0.25; done
if grep -q 'load data from file' "$STAGED_LOG"; then
  grep 'lastSystemStartTime=\|load data from file\|Loaded boot time' "$STAGED_LOG" | tail -n 3 | tr -d '\r' | sed 's/^/  /'
else
  echo "  the restarted module did not reload its files" >&2
  exit 1
fi
