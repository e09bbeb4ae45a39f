#!/usr/bin/env bash
# Runs the whole test suite N times (default 20) on one build and reports which tests ever
# failed: a test that fails one run in N is a defect. Logs of failed runs stay in build/stress/.
set -euo pipefail
cd "$(dirname "$0")/.."

runs=${1:-20}
if ! [[ "$runs" =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: scripts/stress.sh [N]   (N runs of the whole suite, default 20)" >&2
  exit 2
fi

echo "stress: building"
build_log=$(mktemp)
if ! scripts/build.sh >"$build_log" 2>&1; then
  cat "$build_log" >&2
  rm -f "$build_log"
  exit 1
fi
rm -f "$build_log"
logs=build/stress
rm -rf "$logs"
mkdir -p "$logs"

# Counts per failed test name, and the ways it failed (Failed, Timeout, SEGFAULT, ...).
declare -A failures=()
declare -A kinds=()
passed=0
started=$SECONDS

progress() {
  local text="stress: run $1 of $runs, $passed passed, ${#failures[@]} tests failed so far, $((SECONDS - started)) s"
  if [[ -t 1 ]]; then printf '\r\033[K%s' "$text"; else printf '%s\n' "$text"; fi
}

for ((run = 1; run <= runs; ++run)); do
  progress "$run"
  log="$logs/run-$run.log"
  if (cd build && ctest -j2 --timeout 300 --output-on-failure) >"$log" 2>&1; then
    passed=$((passed + 1))
    rm -f "$log"
    continue
  fi
  # ctest ends with "The following tests FAILED:" and lines like "  12 - name (Failed)".
  while read -r name kind; do
    failures[$name]=$((${failures[$name]:-0} + 1))
    [[ ", ${kinds[$name]:-}, " == *", $kind, "* ]] || kinds[$name]="${kinds[$name]:-}${kinds[$name]:+, }$kind"
  done < <(sed -n '/The following tests FAILED:/,$p' "$log" | sed -nE 's/^[[:space:]]*[0-9]+ - ([^ ]+) \((.*)\)$/\1 \2/p')
  if ! grep -q 'The following tests FAILED:' "$log"; then
    failures["(ctest itself)"]=$((${failures["(ctest itself)"]:-0} + 1))
  fi
done
[[ -t 1 ]] && printf '\r\033[K'

echo "stress: $passed of $runs runs passed"
for name in "${!failures[@]}"; do
  echo "  $name: failed in ${failures[$name]} of $runs runs (${kinds[$name]:-Failed})"
done | sort
if ((passed < runs)); then
  echo "logs of the failed runs: $logs/"
  exit 1
fi
