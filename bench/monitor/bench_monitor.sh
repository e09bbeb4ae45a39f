#!/usr/bin/env bash
# What monitoring a staged boot (see scripts/staged-boot.sh) costs, for a boot of the usual
# processes and for one of COUNT more (workload.exe --children), one staged boot after the other:
#   module cost   the module's own threads' CPU over the monitor's loop, per second of it
#   host cost     the whole development host's CPU over the same loop
#   idle host     the host's CPU over 30 s after the boot, when nothing is monitored
#   host memory growth   the host's private memory at the boot's end against at the logon
#   accuracy      the boot time the module stored against the workload's busy end
# with the targets beside them. Each boot's log, results and per-thread CPU stay in
# BUILD/bench-monitor/COUNT.
#   bench/monitor/bench_monitor.sh [BUILD] [COUNT...]   BUILD defaults to build/, COUNT to 0 300
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../../scripts/staged-boot.sh"
source "$here/host_threads.sh"
# Long enough that one clock tick of the host's CPU is 0.03 % of it, under the idle target.
kBareSeconds=30

if [ "${1:-}" = --inside ]; then
  extra=$2
  staged_start
  pid=$(staged_linux_pid lumerahost.exe)
  until grep -q 'BootTimeMonitor::Start: -> ' "$STAGED_LOG" 2>/dev/null; do sleep 0.1; done
  threads_snapshot "$pid" > "$STAGED_OUT/threads-start.txt"
  log_line_tick "$STAGED_LOG" 'KyCreateObject: obj name = boottime[^a-z]' > "$STAGED_OUT/module-loaded.txt"
  while [ "$(staged_uptime | cut -d. -f1)" -lt 10 ]; do sleep 0.2; done
  private_kb "$pid" > "$STAGED_OUT/memory-logon.txt"
  staged_logon_at 10
  # Each extra process is a Wine process to load on two shared cores, a few tenths of a second each.
  staged_wait '<- boottime::BootTimeMonitor::Start' $((180 + extra)) ||
    { echo "bench_monitor: the monitor's loop did not end" >&2; exit 1; }
  threads_snapshot "$pid" > "$STAGED_OUT/threads-end.txt"
  private_kb "$pid" > "$STAGED_OUT/memory-end.txt"
  module_threads "$pid" "$STAGED_OUT/threads-end.txt" "$(cat "$STAGED_OUT/module-loaded.txt")" > "$STAGED_OUT/module-threads.txt"
  staged_wait 'OnDataAnalysed error code' 120 || { echo "bench_monitor: the boot was not measured" >&2; exit 1; }
  for _ in $(seq 100); do [ -s "$STAGED_OUT/monitor-cost.txt" ] && break; sleep 0.1; done
  cpu0=$(staged_cpu_ticks "$pid"); t0=$(staged_uptime)
  sleep "$kBareSeconds"
  cpu1=$(staged_cpu_ticks "$pid"); t1=$(staged_uptime)
  echo "$((cpu1 - cpu0)) $t0 $t1" > "$STAGED_OUT/idle.txt"
  threads_snapshot "$pid" > "$STAGED_OUT/threads-idle.txt"
  exit 0
fi

# Prints the figures of the staged boot in STAGED_OUT with EXTRA more processes.
report() {
  local extra=$1 tck module_ticks boot busy ready
  tck=$(getconf CLK_TCK)
  module_ticks=$(threads_ticks_between "$STAGED_OUT/threads-start.txt" "$STAGED_OUT/threads-end.txt" \
                 $(cut -d' ' -f1 "$STAGED_OUT/module-threads.txt"))
  boot=$(sed -n 's/.*"bootTime": *"\{0,1\}\([0-9]*\).*/\1/p' "$STAGED_DATA/velora/last_boot_time_information.json")
  busy=$(sed -n 's/.*"busyEndTick": *\([0-9]*\).*/\1/p' "$STAGED_WORKLOAD_REPORT")
  ready=$(sed -n 's/.*"childrenReady": *\([0-9]*\).*/\1/p' "$STAGED_WORKLOAD_REPORT")
  read -r cpu wall < "$STAGED_OUT/monitor-cost.txt"
  read -r idle_ticks t0 t1 < "$STAGED_OUT/idle.txt"
  echo "== staged boot with $extra more processes ($ready started and did their share; $(uptime | sed 's/.*load/load/'))"
  echo "   module threads (Linux tid and name): $(paste -sd' ' "$STAGED_OUT/module-threads.txt")"
  awk -v extra="$extra" -v cpu="$cpu" -v wall="$wall" -v mt="$module_ticks" -v it="$idle_ticks" -v a="$t0" -v b="$t1" \
      -v tck="$tck" -v m0="$(cat "$STAGED_OUT/memory-logon.txt")" -v m1="$(cat "$STAGED_OUT/memory-end.txt")" \
      -v boot="$boot" -v busy="$busy" 'BEGIN {
    big = extra >= 300
    module = wall > 0 ? 100 * (mt * 1000 / tck) / wall : 0
    host = wall > 0 ? 100 * cpu / wall : 0
    idle = b > a ? 100 * (it * 1000 / tck) / ((b - a) * 1000) : 0
    printf "   monitored for %.1f s, host CPU %d ms, module threads %d ms\n", wall / 1000, cpu, mt * 1000 / tck
    printf "module cost: %.2f %% of one core%s\n", module, big ? "   (target at most 0.2 %)" : ""
    printf "host cost: %.2f %% of one core   (target at most %s %%)\n", host, big ? "1.0" : "0.5"
    printf "idle host: %.2f %% of one core%s\n", idle, big ? "   (target at most 0.1 %)" : ""
    printf "host memory growth: %.1f MB%s\n", (m1 - m0) / 1024, big ? "   (target at most 8 MB)" : ""
    if (boot == "" || busy == "") print "accuracy: unknown (no stored boot time or no workload report)"
    else printf "accuracy: %d ms   (boot time %d ms - busy end %d ms; target within 1000 ms)\n", boot - busy, boot, busy
  }'
}

build=$(cd "${1:-$here/../../build}" && pwd)
shift || true
counts=("$@")
[ ${#counts[@]} -gt 0 ] || counts=(0 300)
STAGED_PROGRESS=0
for extra in "${counts[@]}"; do
  # One staged boot at a time: two would each measure the other's load.
  staged_init "$build/bench-monitor/$extra" "$build/bin"
  staged_prepare --extra "$extra" --busy-ms 3000 --write-mb 8 --quiet-ms 3000
  # The prefix is a 700 MB copy; the log and the results stay.
  trap 'rm -rf "$STAGED_PREFIX"' EXIT
  staged_enter "$0" --inside "$extra"
  rm -rf "$STAGED_PREFIX"
  report "$extra"
done
