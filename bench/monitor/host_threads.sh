# The development host's Linux threads, their CPU and its private memory, for bench_monitor.sh
# (source it, inside the staged boot's time namespace).
#
# Under Wine each Windows thread is a Linux thread, so /proc/PID/task/TID/stat holds each
# thread's CPU. The Windows thread ids the module logs have no Linux counterpart one can read
# from outside, and thread start times come in 10 ms ticks, as close as the host and the module
# start their threads; but Wine 8 makes a thread's description (SetThreadDescription) its Linux
# name, which every thread it starts inherits. The host names each of its own threads
# "lumera-...", so the module's threads are those started since the module was loaded whose name
# no host thread gave: its processing thread, its service-start watcher and the threads the
# libraries it loads start for it (pipes), all started from the service thread Wine names.
kHostThreadPrefix=lumera-

# "tid ticks start_ticks name" per thread of PID, ticks being utime + stime.
threads_snapshot() {
  local task
  for task in /proc/"$1"/task/[0-9]*; do
    awk -v tid="${task##*/}" -v name="$(cat "$task/comm" 2>/dev/null)" \
      '{ sub(/^.*\) /, ""); gsub(/ /, "_", name); print tid, $12 + $13, $20, name }' "$task/stat" 2>/dev/null || true
  done
}

# Ticks (at the namespace's boot clock) at which the log's first line holding TEXT was written.
log_line_tick() {
  local stamp epoch
  stamp=$(grep -m1 -- "$2" "$1" | cut -c1-23)
  [ -n "$stamp" ] || return 1
  # /proc/uptime has only 10 ms steps, as coarse as what it is compared with.
  epoch=$(python3 -c 'import time; print("%.6f" % (time.time() - time.clock_gettime(time.CLOCK_BOOTTIME)))' 2>/dev/null ||
          awk -v now="$(date +%s.%N)" '{ printf "%.6f\n", now - $1 }' /proc/uptime)
  awk -v t="$(date -d "$stamp" +%s.%N)" -v epoch="$epoch" -v tck="$(getconf CLK_TCK)" 'BEGIN { print int((t - epoch) * tck) }'
}

# The module's threads in SNAPSHOT of PID's threads: "tid name" each.
module_threads() {
  local pid=$1 snapshot=$2 loaded=$3
  awk -v pid="$pid" -v loaded="$loaded" -v prefix="$kHostThreadPrefix" \
    '$1 != pid && $3 >= loaded && index($4, prefix) != 1 { print $1, $4 }' "$snapshot"
}

# Ticks the threads TID... used from the START snapshot to the END one (from their start, for a
# thread started in between).
threads_ticks_between() {
  local start=$1 end=$2
  shift 2
  awk -v want=" $* " 'NR == FNR { before[$1] = $2; next }
    index(want, " " $1 " ") { sum += $2 - before[$1] }
    END { print sum + 0 }' "$start" "$end"
}

# Private memory of PID in kB (clean and dirty pages no other process shares).
private_kb() {
  awk '/^Private_(Clean|Dirty):/ { kb += $2 } END { print kb + 0 }' "/proc/$1/smaps_rollup" 2>/dev/null
}
