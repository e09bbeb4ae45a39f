# Prints what a staged boot measured, at a glance (source it; runs inside the staged session).
# Needs STAGED_* from scripts/staged-boot.sh and the module running in the host service.

SUMMARY_TOP=${SUMMARY_TOP:-8}

summary_tool() { wine "$STAGED_BIN/$1.exe" "${@:2}" </dev/null 2>/dev/null | tr -d '\r'; }

# Whether boottime.exe knows a command.
summary_has_command() { summary_tool boottime --help | grep -q "^ *$1 "; }

# The Task Manager's startup impact: High above 1 s of CPU or 3 MB of disk, Medium from 300 ms
# or 300 KB, Low below both.
summary_rating_awk='function rating(cpu, io) {
  if (cpu > 1000 || io > 3 * 1048576) return "High"
  if (cpu >= 300 || io >= 300 * 1024) return "Medium"
  return "Low"
}'

# The impact table of boottime.exe as "cpu_ms<TAB>read<TAB>written<TAB>image", heaviest first.
summary_impacts() {
  summary_tool boottime impact | awk 'NR > 1 && $1 ~ /^[0-9]+$/ {
    name = $0; for (i = 1; i <= 7; ++i) sub(/^ *[^ ]+/, "", name); sub(/^ +/, "", name)
    printf "%d\t%d\t%d\t%s\n", $3 + $4, $5, $6, name }' | sort -t$'\t' -k1,1nr -k2,2nr
}

# When an entry delayed before the boot started, against the boot's end (both ms since the
# start), from the report REPORT its program wrote: summary_delayed LABEL REPORT.
summary_delayed() {
  local file=$STAGED_DATA/velora/last_boot_time_information.json boot start pid
  boot=$(grep -o '"bootTime" *: *"[0-9-]*"' "$file" 2>/dev/null | grep -o '[0-9-]*"$' | tr -d '"')
  start=$(grep -o '"busyStartTick" *: *[0-9]*' "$2" 2>/dev/null | grep -o '[0-9]*$')
  pid=$(grep -o '"pid" *: *[0-9]*' "$2" 2>/dev/null | grep -o '[0-9]*$')
  if [ -z "$start" ] || [ -z "$boot" ]; then
    printf '  %-16s has not started (no %s)\n' "$1" "$2"
    return
  fi
  printf '  %-16s started at %d.%03d s (pid %s), %d ms after the boot end at %d.%03d s\n' "$1" \
    $((start / 1000)) $((start % 1000)) "$pid" $((start - boot)) $((boot / 1000)) $((boot % 1000))
}

summary_boot_time() {
  local file=$STAGED_DATA/velora/last_boot_time_information.json boot start
  boot=$(grep -o '"bootTime" *: *"[0-9-]*"' "$file" 2>/dev/null | grep -o '[0-9-]*"$' | tr -d '"')
  start=$(grep -o '"systemStartTimestamp" *: *"[0-9-]*"' "$file" 2>/dev/null | grep -o '[0-9-]*"$' | tr -d '"')
  if [ -z "$boot" ]; then
    echo "  no boot time stored ($file missing)"
    return
  fi
  # Milliseconds since 1601-01-01 to a Unix date.
  printf '  boot time        %d.%03d s\n' $((boot / 1000)) $((boot % 1000))
  printf '  machine started  %s (%s ms since 1601)\n' "$(date -d "@$((start / 1000 - 11644473600))" '+%F %T %Z')" "$start"
  summary_impacts | awk -F'\t' '{ cpu += $1; read += $2; written += $3 } END {
    printf "  all processes    %d, CPU %d ms, read %.1f MB, written %.1f MB\n", NR, cpu, read / 1048576, written / 1048576 }'
}

summary_blame() {
  if summary_has_command blame; then
    summary_tool boottime blame | head -n $((SUMMARY_TOP + 1)) | sed 's/^/  /'
    return
  fi
  summary_impacts | head -n "$SUMMARY_TOP" | awk -F'\t' "$summary_rating_awk"'
    BEGIN { printf "  %9s %9s %9s  %-6s  %s\n", "CPU ms", "read MB", "write MB", "impact", "process" }
    { printf "  %9d %9.1f %9.1f  %-6s  %s\n", $1, $2 / 1048576, $3 / 1048576, rating($1, $2 + $3), $4 }'
}

summary_disk() {
  summary_tool boottime disk | sed 's/^/  /'
}

# startupctl's table (name, kind, scope, state, location, command, description, company, id)
# joined with the boot's processes by the program each entry starts.
summary_startup_apps() {
  local impacts
  impacts=$(summary_impacts)
  summary_tool startupctl list | IMPACTS="$impacts" awk -F'\t' "$summary_rating_awk"'
    function target(command,   t) {
      if (substr(command, 1, 1) == "\"") { t = substr(command, 2); sub(/".*/, "", t); return t }
      t = command; sub(/\.[Ee][Xx][Ee]( .*)?$/, ".exe", t); return t
    }
    BEGIN {
      n = split(ENVIRON["IMPACTS"], rows, "\n")
      for (i = 1; i <= n; ++i) {
        split(rows[i], f, "\t"); key = tolower(f[4])
        cpu[key] += f[1]; io[key] += f[2] + f[3]; seen[key] = 1
      }
    }
    # The first line names whose entries these are: the user at the console, as the service sees them.
    NR == 1 && NF < 8 { printf "  %s\n", $0; next }
    NF >= 8 && !headed { printf "  %-26s %-10s %-9s %-24s  %s\n", "app", "publisher", "state", "impact", "program"; headed = 1 }
    NF >= 8 {
      t = tolower(target($6))
      impact = (t in seen) ? sprintf("%s (%d ms, %.1f MB)", rating(cpu[t], io[t]), cpu[t], io[t] / 1048576) : "not measured"
      # The long state text would break the columns; a note under the table says it instead.
      state = $4; if (state ~ /^delayed /) { state = "delayed*"; delayed = 1 }
      printf "  %-26s %-10s %-9s %-24s  %s\n", $1, $8, state, impact, target($6)
    }
    END { if (delayed) printf "  * delayed: starts after the boot (StartLauncher.exe /delayed)\n" }'
}

summary_central() {
  if [ -s "$STAGED_CENTRAL_JSON" ]; then
    tr -d '\r' < "$STAGED_CENTRAL" | sed -n '2,$p' | grep -v '^$' | head -n 30 | sed 's/^/  /'
  else
    echo "  no report reached lumeracentral.exe"
  fi
}

# Whose logon was staged and what it started ("user NAME (SID)", then one line per entry).
summary_logon() {
  tr -d '\r' < "$STAGED_LOGON_OUT" 2>/dev/null | awk -F'\t' '
    $1 == "user" { printf "  user %s (%s)\n", $2, $3 }
    $1 == "started" { printf "  started %-20s pid %s\n", $2, $3 }
    $1 == "skipped" || $1 == "failed" { printf "  %s %-20s %s\n", $1, $2, $3 }'
}

# Whether the module left the service account's decoys alone: none of them may appear in the
# report the central stand-in received or in the module's log.
summary_decoys() {
  local central log
  central=$(grep -c 'Decoy' "$STAGED_CENTRAL_JSON" 2>/dev/null) || true
  log=$(grep -c 'Decoy' "$STAGED_LOG" 2>/dev/null) || true
  if [ "${central:-0}" = 0 ] && [ "${log:-0}" = 0 ]; then
    echo "  left alone: no \"Decoy\" in the report lumeracentral.exe received or in the module's log"
  else
    echo "  NOT left alone: ${central:-0} of the reports lumeracentral.exe received and ${log:-0} lines of the module's log name a decoy"
  fi
}
