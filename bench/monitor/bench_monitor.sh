#!/usr/bin/env bash
# The development host's own processor time while the module monitors a staged boot (see
# scripts/staged-boot.sh), divided by the wall time of the monitor's loop; beside it the same
# host's cost over a stretch after the boot, when the module no longer monitors (the bare
# baseline of the same run).
#   bench/monitor/bench_monitor.sh [BUILD]      BUILD defaults to build/
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../../scripts/staged-boot.sh"
kBareSeconds=10

if [ "${1:-}" = --inside ]; then
  staged_start
  staged_logon_at 10
  staged_wait 'OnDataAnalysed error code' 180 || { echo "bench_monitor: the boot was not measured" >&2; exit 1; }
  for _ in $(seq 100); do [ -s "$STAGED_OUT/monitor-cost.txt" ] && break; sleep 0.1; done
  pid=$(staged_linux_pid lumerahost.exe)
  cpu0=$(staged_cpu_ticks "$pid"); t0=$(staged_uptime)
  sleep "$kBareSeconds"
  cpu1=$(staged_cpu_ticks "$pid"); t1=$(staged_uptime)
  read -r cpu wall < "$STAGED_OUT/monitor-cost.txt"
  awk -v cpu="$cpu" -v wall="$wall" -v bc="$((cpu1 - cpu0))" -v a="$t0" -v b="$t1" -v tck="$(getconf CLK_TCK)" 'BEGIN {
    bare_cpu = bc * 1000 / tck; bare_wall = (b - a) * 1000
    bare = bare_wall > 0 ? 100 * bare_cpu / bare_wall : 0
    cost = wall > 0 ? 100 * cpu / wall : 0
    printf "monitored boot: %.1f s of the monitor loop, host CPU %d ms\n", wall / 1000, cpu
    printf "bare host after the boot: %.1f s, host CPU %d ms (%.2f %% of one core)\n", bare_wall / 1000, bare_cpu, bare
    if (bare > 0) printf "monitored / bare: %.1f\n", cost / bare
    printf "monitor cost: %.2f %% of one core\n", cost
  }'
  exit 0
fi

build=$(cd "${1:-$here/../../build}" && pwd)
STAGED_PROGRESS=0
staged_init "$build/bench-monitor" "$build/bin"
staged_prepare --busy-ms 3000 --write-mb 8 --quiet-ms 3000
# The prefix is a 700 MB copy; the log and the results stay.
trap 'rm -rf "$STAGED_PREFIX"' EXIT
staged_enter "$0" --inside
