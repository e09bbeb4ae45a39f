# Stages a whole Windows boot under Wine, for the demo and the end-to-end test (source it).
#
# The machine "starts" a few seconds before the staged session: a Linux time namespace sets the
# clocks back so the prefix's tick count begins near STAGED_BOOT_AGE, and a fresh wineserver
# inside it starts the prefix's auto-start services, the development host among them. Two
# identities are staged, as on Windows: the Wine account the host and the tools run as, which
# plays LocalSystem and holds the decoys (stageduser.exe decoys), and the user who logs on,
# "stageduser" (stageduser.exe create), whose Run key and Startup folder hold the workload.
# Nobody is logged on until the staged logon, which loads the user's hive, flips the
# development console switch and lets stagedlogon.exe start the user's Run-key and
# Startup-folder programs, as Windows' shell does at a logon.
#
#   staged_init OUT BIN            folders and names; OUT is wiped
#   staged_prepare [--flavour win7|win10] [--extra N] [WORKLOAD ARG...]
#                                  fresh prefix reporting that Windows (default win10), host
#                                  installed as an auto-start service, the staged user with the
#                                  workload in its Run key and a light one in its Startup folder,
#                                  a short one in its Run key and another behind a shortcut in its
#                                  Startup folder, both delayed through startupctl
#                                  (StartLauncher.exe /delayed starts them after the boot,
#                                  STAGED_GAP_MS apart), the decoys in the Wine account's;
#                                  --extra N: the workload first starts N light copies of itself
#                                  that live until it ends (a boot of N more processes, default 0)
#   staged_enter CMD [ARG...]      runs CMD in the time namespace (the rest of the session)
#   staged_start                   inside: wineserver, central stand-in, waits for the host
#   staged_logon_at SECONDS        inside: the staged logon once the machine is that old
#   staged_wait PATTERN SECONDS    inside: progress line until the log holds PATTERN (processes
#                                  followed so far, from the module's log)
#   staged_restart_service         inside: stops and starts the host service in the same boot
#   staged_cleanup                 inside: ends every process of the session
#   staged_watch_monitor_cost      inside, started by staged_start: the host's CPU during the
#                                  monitor's loop, into monitor-cost.txt

STAGED_BOOT_AGE=${STAGED_BOOT_AGE:-3}
STAGED_PROGRESS=${STAGED_PROGRESS:-1}
STAGED_DEV_KEY='HKLM\Software\Nexalon\Lumera\Development'
STAGED_USER=stageduser
STAGED_USER_SID=S-1-5-21-0-0-0-1001
STAGED_RUN_KEY="HKU\\$STAGED_USER_SID\\Software\\Microsoft\\Windows\\CurrentVersion\\Run"
STAGED_SERVICE=LumeraHost
STAGED_GAP_MS=2000
STAGED_DELAYED_RUN=LumeraDelayed
STAGED_DELAYED_SHORTCUT=LumeraDelayedShortcut.lnk

# Windows sees the Linux file system as drive Z:.
staged_winpath() { printf 'Z:%s' "$1" | sed 's|/|\\|g'; }

staged_init() {
  STAGED_OUT=$(mkdir -p "$1" && cd "$1" && pwd)
  STAGED_BIN=$(cd "$2" && pwd)
  STAGED_PREFIX=$STAGED_OUT/prefix
  STAGED_LOG=$STAGED_OUT/logs/lumera.log
  STAGED_USER_LOG=$STAGED_OUT/logs/user/lumera.log
  STAGED_DATA=$STAGED_OUT/data
  STAGED_CENTRAL=$STAGED_OUT/central.txt
  STAGED_CENTRAL_JSON=$STAGED_OUT/central.jsonl
  STAGED_WORKLOAD_REPORT=$STAGED_OUT/workload.json
  STAGED_TIMES=$STAGED_OUT/times.txt
  STAGED_LOGON_OUT=$STAGED_OUT/stagedlogon.txt
  STAGED_DELAYED_RUN_REPORT=$STAGED_OUT/delayed-run.json
  STAGED_DELAYED_SHORTCUT_REPORT=$STAGED_OUT/delayed-shortcut.json
  STAGED_FLAVOUR=win10
  export STAGED_OUT STAGED_BIN STAGED_PREFIX STAGED_LOG STAGED_DATA STAGED_CENTRAL STAGED_CENTRAL_JSON \
    STAGED_DELAYED_RUN STAGED_DELAYED_SHORTCUT STAGED_DELAYED_RUN_REPORT STAGED_DELAYED_SHORTCUT_REPORT STAGED_GAP_MS \
    STAGED_FLAVOUR STAGED_USER_LOG STAGED_WORKLOAD_REPORT STAGED_TIMES STAGED_LOGON_OUT STAGED_BOOT_AGE STAGED_PROGRESS STAGED_USER STAGED_USER_SID
  export WINEPREFIX=$STAGED_PREFIX WINEDEBUG=-all
  find "$STAGED_OUT" -mindepth 1 -delete 2>/dev/null || true
  mkdir -p "$STAGED_OUT/logs/user" "$STAGED_DATA"
}

# Seconds since the staged machine started, with one decimal (inside the namespace).
staged_uptime() { cut -d' ' -f1 /proc/uptime; }

staged_prepare() {
  local root=$STAGED_BIN/../wine repo
  if [ "${1:-}" = --flavour ]; then
    case "${2:-}" in
      win7|win10) STAGED_FLAVOUR=$2 ;;
      *) echo "staged_prepare: --flavour takes win7 or win10, not \"${2:-}\"" >&2; return 2 ;;
    esac
    shift 2
  fi
  local extra=0
  if [ "${1:-}" = --extra ]; then
    case "${2:-}" in
      ''|*[!0-9]*) echo "staged_prepare: --extra takes a number of processes, not \"${2:-}\"" >&2; return 2 ;;
    esac
    extra=$2
    shift 2
  fi
  # Most steps below are quiet; a failing one names itself before set -e ends the script.
  set -E
  # What the quiet steps print goes to prepare.log, whose end the failure shows.
  local prep="$STAGED_OUT/prepare.log"
  : >"$prep"
  trap 'echo "staged boot: preparing the prefix failed with status $? at: $BASH_COMMAND" >&2; tail -n 5 "$prep" >&2' ERR
  repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
  if [ ! -f "$root/template/.ready" ]; then
    "$repo/cmake/wine-prefix.sh" setup "$root" >/dev/null
    "$repo/cmake/wine-prefix.sh" teardown "$root" >/dev/null
  fi
  cp -a "$root/template" "$STAGED_PREFIX"

  cat > "$STAGED_OUT/lumerahost.json" <<JSON
{
  "objects": ["boottime", "boottimecomm"],
  "folders": {"2:common": "$(staged_winpath "$STAGED_DATA" | sed 's|\\|\\\\|g')"},
  "log": {"folder": "$(staged_winpath "$STAGED_OUT/logs" | sed 's|\\|\\\\|g')", "level": 32, "console": false}
}
JSON
  local startup workload run short children=''
  if [ "$extra" -gt 0 ]; then children=" --children $extra"; fi
  workload=$(staged_winpath "$STAGED_BIN/workload.exe")
  run="\"$workload\" $*$children --folder $(staged_winpath "$STAGED_OUT") --report $(staged_winpath "$STAGED_WORKLOAD_REPORT")"
  short="--busy-ms 200 --quiet-ms 0 --report"

  wineserver -p1 </dev/null >/dev/null 2>&1
  wine "$STAGED_BIN/lumerahost.exe" install --config "$(staged_winpath "$STAGED_OUT/lumerahost.json")" >>"$prep" 2>&1
  # The launcher install registered, with waits that fit a staged boot.
  wine reg add 'HKLM\Software\Microsoft\Windows\CurrentVersion\Run' /v LumeraDelayedStart \
    /d "\"$(staged_winpath "$STAGED_BIN/StartLauncher.exe")\" /delayed --wait-ms 150000 --gap-ms $STAGED_GAP_MS" /f >>"$prep" 2>&1
  # Installed on demand; the boot is to start it like any auto-start service.
  wine reg add "HKLM\\System\\CurrentControlSet\\Services\\$STAGED_SERVICE" /v Start /t REG_DWORD /d 2 /f >>"$prep" 2>&1
  wine reg add "$STAGED_DEV_KEY" /v ConsoleSession /t REG_DWORD /d 0 /f >>"$prep" 2>&1
  wine reg add 'HKCU\Software\Wine' /v Version /d "$STAGED_FLAVOUR" /f >>"$prep" 2>&1
  "$repo/winestandins/install.sh" "$STAGED_PREFIX" "$STAGED_BIN/winestandins" >>"$prep" 2>&1
  wine stageduser.exe create "$STAGED_USER" --sid "$STAGED_USER_SID" >>"$prep" 2>&1
  wine stageduser.exe decoys >>"$prep" 2>&1
  wine reg add "$STAGED_RUN_KEY" /v LumeraWorkload /d "$run" /f >>"$prep" 2>&1
  # What the logon starts in the user's environment (StartLauncher.exe /delayed) logs here.
  wine reg add "HKU\\$STAGED_USER_SID\\Environment" /v LUMERA_LOG_DIR \
    /d "$(staged_winpath "$(dirname "$STAGED_USER_LOG")")" /f >>"$prep" 2>&1
  startup="$STAGED_PREFIX/drive_c/users/$STAGED_USER/AppData/Roaming/Microsoft/Windows/Start Menu/Programs/Startup"
  cp "$STAGED_BIN/workload.exe" "$startup/workload-light.exe"
  wine reg add "$STAGED_RUN_KEY" /v "$STAGED_DELAYED_RUN" \
    /d "\"$workload\" $short $(staged_winpath "$STAGED_DELAYED_RUN_REPORT")" /f >>"$prep" 2>&1
  staged_shortcut "C:\\users\\$STAGED_USER\\AppData\\Roaming\\Microsoft\\Windows\\Start Menu\\Programs\\Startup\\$STAGED_DELAYED_SHORTCUT" \
    "$workload" "$short $(staged_winpath "$STAGED_DELAYED_SHORTCUT_REPORT")"
  test -f "$startup/$STAGED_DELAYED_SHORTCUT"
  # Delayed as a person would, with the user at the console for a moment; the Run entry first,
  # so it is the older delay and starts first.
  wine reg add "$STAGED_DEV_KEY" /v ConsoleSession /t REG_DWORD /d 1 /f >>"$prep" 2>&1
  wine "$STAGED_BIN/startupctl.exe" delay "$STAGED_DELAYED_RUN" </dev/null >>"$prep" 2>&1
  wine "$STAGED_BIN/startupctl.exe" delay "$STAGED_DELAYED_SHORTCUT" </dev/null >>"$prep" 2>&1
  wine reg add "$STAGED_DEV_KEY" /v ConsoleSession /t REG_DWORD /d 0 /f >>"$prep" 2>&1
  # Keys under HKEY_USERS\<SID> end with this wineserver: the hive goes into the profile, and the
  # staged logon loads it back, as Windows loads NTUSER.DAT.
  wine stageduser.exe logoff "$STAGED_USER" >>"$prep" 2>&1
  wineserver -w
  trap - ERR
  set +E
}

# Saves a shortcut FILE to TARGET with ARGUMENTS through the Windows Script Host, as a
# person's script would make one.
staged_shortcut() {
  cat > "$STAGED_OUT/shortcut.js" <<'JS'
var shortcut = WScript.CreateObject("WScript.Shell").CreateShortcut(WScript.Arguments(0));
shortcut.TargetPath = WScript.Arguments(1);
shortcut.Arguments = WScript.Arguments(2);
shortcut.Save();
JS
  wine cscript //nologo "$(staged_winpath "$STAGED_OUT/shortcut.js")" "$1" "$2" "$3" </dev/null >/dev/null 2>&1
}

# The namespace's clocks start STAGED_BOOT_AGE seconds after the staged machine's start.
staged_enter() {
  local up back
  up=$(cut -d. -f1 /proc/uptime)
  back=$((up - STAGED_BOOT_AGE))
  unshare --user --map-root-user --time --fork --monotonic=-$back --boottime=-$back "$@"
}

staged_note() { printf '%s %s\n' "$1" "$(staged_uptime)" >> "$STAGED_TIMES"; }

# The Linux pid of the Wine process of this session (same time namespace) whose image is
# $STAGED_BIN/$1: a Wine process's command line starts with its Windows image path.
staged_linux_pid() {
  local p first wanted ns
  wanted=$(staged_winpath "$STAGED_BIN/$1")
  ns=$(readlink /proc/self/ns/time)
  for p in /proc/[0-9]*; do
    [ "$(readlink "$p/ns/time" 2>/dev/null)" = "$ns" ] || continue
    first=$( { tr '\0' '\n' < "$p/cmdline" | head -n1; } 2>/dev/null) || continue
    [ "${first,,}" = "${wanted,,}" ] && { echo "${p#/proc/}"; return 0; }
  done
  return 1
}

# utime + stime of a Linux process in clock ticks.
staged_cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat" 2>/dev/null; }

staged_start() {
  trap staged_cleanup EXIT
  trap 'exit 130' INT TERM
  wineserver -p3 </dev/null >/dev/null 2>&1
  staged_note start
  staged_watch_monitor_cost &
  # The first program of the session boots the prefix, which starts the auto-start services.
  wine "$STAGED_BIN/lumeracentral.exe" --out "$(staged_winpath "$STAGED_CENTRAL_JSON")" \
    </dev/null >"$STAGED_CENTRAL" 2>&1 &
  STAGED_CENTRAL_PID=$!
  # What Windows' diagnostics service does: event 100 once the machine is idle after the logon.
  if [ -f "$STAGED_PREFIX/drive_c/windows/system32/diagperf.exe" ]; then
    wine diagperf.exe --max-seconds 170 </dev/null >"$STAGED_OUT/diagperf.txt" 2>&1 &
  fi
  staged_wait 'host running' 30 || { echo "staged boot: the host service did not start" >&2; return 1; }
  staged_note host
}

staged_logon_at() {
  while [ "$(staged_uptime | cut -d. -f1)" -lt "$1" ]; do
    staged_progress
    sleep 0.2
  done
  [ "$STAGED_PROGRESS" = 1 ] && printf '\r%-80s\r' ''
  staged_note logon
  wine stageduser.exe logon "$STAGED_USER" </dev/null >/dev/null
  wine reg add "$STAGED_DEV_KEY" /v ConsoleSession /t REG_DWORD /d 1 /f >/dev/null 2>&1
  # What the shell does at a logon: the Run-key and Startup-folder programs, the user's among them.
  wine stagedlogon.exe </dev/null >"$STAGED_LOGON_OUT" 2>&1
}

staged_count() { local n; n=$(grep -c "$1" "$STAGED_LOG" 2>/dev/null) || true; echo "${n:-0}"; }

staged_phase() {
  if grep -q 'OnDataAnalysed error code' "$STAGED_LOG" 2>/dev/null; then echo "results stored, reporting"
  elif grep -q 'BootTimeDiskPerformance::MeasureDiskPerformance' "$STAGED_LOG" 2>/dev/null; then echo "measuring the disk"
  elif grep -q 'boot time = \|WinBootEvent time=' "$STAGED_LOG" 2>/dev/null; then echo "boot over, analysing"
  elif grep -q 'login time = ' "$STAGED_LOG" 2>/dev/null; then echo "user logged on, boot going on"
  elif grep -q 'BootTimeMonitor::Start' "$STAGED_LOG" 2>/dev/null; then echo "monitoring, nobody logged on"
  elif grep -q 'host running' "$STAGED_LOG" 2>/dev/null; then echo "host started"
  else echo "machine starting"
  fi
}

# The progress line, rewritten in place: seconds since boot, processes followed so far, phase.
staged_progress() {
  [ "$STAGED_PROGRESS" = 1 ] || return 0
  printf '\r  %5.1f s since boot | %3d processes followed | %-34s' "$(staged_uptime)" \
    "$(staged_count ": ADD \\|: Add ")" "$(staged_phase)"
}

# One progress line, rewritten in place, until the log holds PATTERN (1 when SECONDS pass first).
staged_wait() {
  local pattern=$1 limit=$2 start
  start=$(date +%s)
  while ! grep -q "$pattern" "$STAGED_LOG" 2>/dev/null; do
    if [ $(($(date +%s) - start)) -ge "$limit" ]; then
      [ "$STAGED_PROGRESS" = 1 ] && printf '\n'
      return 1
    fi
    staged_progress
    sleep 0.5
  done
  [ "$STAGED_PROGRESS" = 1 ] && printf '\r%-80s\r' ''
  return 0
}

staged_restart_service() {
  wine net stop "$STAGED_SERVICE" </dev/null >/dev/null 2>&1 || true
  wine net start "$STAGED_SERVICE" </dev/null >/dev/null 2>&1
}

staged_cleanup() {
  local job
  for job in $(jobs -p); do kill "$job" 2>/dev/null || true; done
  wineserver -k 2>/dev/null || true
  wait 2>/dev/null || true
}

# Writes "cpu_ms wall_ms" of the host process between the start and the end of the monitor's
# loop to $STAGED_OUT/monitor-cost.txt (run in the background during a staged boot).
staged_watch_monitor_cost() {
  local pid='' cpu0 t0 cpu1 t1 tck
  tck=$(getconf CLK_TCK)
  until grep -q 'BootTimeMonitor::Start: -> ' "$STAGED_LOG" 2>/dev/null; do sleep 0.1; done
  until pid=$(staged_linux_pid lumerahost.exe); do sleep 0.1; done
  cpu0=$(staged_cpu_ticks "$pid"); t0=$(staged_uptime)
  until grep -q '<- boottime::BootTimeMonitor::Start' "$STAGED_LOG" 2>/dev/null; do sleep 0.1; done
  cpu1=$(staged_cpu_ticks "$pid"); t1=$(staged_uptime)
  [ -n "$cpu0" ] && [ -n "$cpu1" ] || return 0
  awk -v c="$((cpu1 - cpu0))" -v a="$t0" -v b="$t1" -v tck="$tck" \
    'BEGIN { printf "%d %d\n", c * 1000 / tck, (b - a) * 1000 }' > "$STAGED_OUT/monitor-cost.txt"
}
