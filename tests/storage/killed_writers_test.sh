#!/usr/bin/env bash
# storage_churn.exe rewrites the store and both result files in a loop and is killed with
# SIGKILL, from outside, at a random instant; this is done KILLS times. SIGKILL of the Linux
# process that runs it ends the Windows process with no chance to run anything more, as a
# crash or a power cut of the process would. Each new run first checks what the killed one
# left (the store parses and holds every record whose save returned 0; both result files are
# whole) and fails with exit code 3 when it does not. The kills stop at KILLS or after SECONDS,
# whichever comes first, so that a loaded machine makes fewer kills rather than a time-out.
#   killed_writers_test.sh CHURN_EXE WORK_FOLDER KILLS [SECONDS]
set -euo pipefail
churn=$1
work=$2
kills=${3:-500}
budget=${4:-100}
export WINEPREFIX="$LUMERA_WINE_ROOT/win7" WINEDEBUG=-all
rm -rf "$work"
mkdir -p "$work"
trap 'rm -rf "$work"' EXIT
winwork="Z:$(echo "$work" | tr / '\\')"
out="$work/out.txt"

# A builtin pause (read with a time-out on a pipe that never delivers): no process per poll.
exec {never}<> <(:)
pause() { read -r -t "$1" -u "$never" _ || true; }

wine "$churn" "$winwork" seed
started=$SECONDS
silent=0
unstarted=0
for ((i = 1; i <= kills && SECONDS - started < budget; i++)); do
  : >"$out"
  wine "$churn" "$winwork" run >"$out" 2>&1 &
  pid=$!
  # The check comes first; the kill lands only once it has passed.
  line=
  for ((w = 0, until = SECONDS + 60; SECONDS < until; w++)); do
    while read -r first; do [[ "$first" == checked* ]] && line=$first; done <"$out"
    [[ -n "$line" ]] && break
    kill -0 "$pid" 2>/dev/null || break
    pause 0.005
  done
  if [[ "$line" != checked* ]]; then
    kill -9 "$pid" 2>/dev/null || true
    status=0
    wait "$pid" 2>/dev/null || status=$?
    # Under Wine a start now and then ends at once with status 1 and no output at all, before
    # the program's first line: nothing of ours ran, so nothing was checked or written, and the
    # run is started again; three such in a row fail the test.
    if [[ ! -s "$out" && $status -ne 137 ]] && ((++silent < 3)); then
      unstarted=$((unstarted + 1))
      i=$((i - 1))
      continue
    fi
    # What the run found is kept for a post-mortem: a silent end (no output, no kill of ours)
    # is either a crash on what the killed writer left or a process that never started.
    kept="$work.failed"
    rm -rf "$kept" && cp -r "$work" "$kept"
    echo "after kill $((i - 1)) of $kills: the run ended with status $status after $w polls ($(grep -q '^started' "$out" && echo 'it started' || echo 'it never started')); its folder is kept in $kept (storage_churn.exe FOLDER check repeats the check on it)" >&2
    cat "$out" >&2
    exit 1
  fi
  silent=0
  pause "0.0$((RANDOM % 30 + 5))"
  kill -9 "$pid"
  wait "$pid" 2>/dev/null || true
  printf '\rkilled %d of %d' "$i" "$kills"
done
kills=$((i - 1))
echo
wine "$churn" "$winwork" check
saves=$(grep -c '^S' "$work/churn.log" || true)
leftovers=$(find "$work" -name '*.lumera-tmp-*' | wc -l)
echo "$kills kills in $((SECONDS - started)) s: $saves saves returned 0, all kept; $leftovers temporary files left; $unstarted starts Wine ended before the program ran, started again"
# Each target's stale temporary files go with its next write: at most the last run's remain.
[[ $leftovers -le 3 ]] || { echo "temporary files of killed writers are not cleared" >&2; exit 1; }
