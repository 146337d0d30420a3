#!/usr/bin/env bash
# One group of `make test`: configure, build and run ctest in BUILD_DIR with
# all output in BUILD_DIR/test.log; on the terminal one line (ctest's own
# summary), plus the failed tests and where to look when something failed.
#   test_group.sh NAME BUILD_DIR [CMAKE_ARG...]   (TARGET=t builds t only; CTEST_ARGS
#                                                 are given to ctest)
#   test_group.sh --total BUILD_DIR|COUNTS_FILE...  the groups' counts summed: "N passed, N failed"
set -uo pipefail
jobs="${JOBS:-$(nproc)}"
if [ "$1" = --total ]; then
  shift
  passed=0 failed=0
  for counts in "$@"; do
    [ -d "$counts" ] && counts="$counts/test-counts"
    [ -f "$counts" ] || continue
    read -r p f <"$counts"
    passed=$((passed + p)) failed=$((failed + f))
  done
  echo "$passed passed, $failed failed"
  [ "$failed" -eq 0 ]
  exit
fi
name="$1" dir="$2"
shift 2
mkdir -p "$dir"
log="$dir/test.log" counts="$dir/test-counts"
rm -f "$counts"
start=$SECONDS
if ! { cmake -S . -B "$dir" "$@" && cmake --build "$dir" -j "$jobs" ${TARGET:+--target "$TARGET"}; } >"$log" 2>&1; then
  echo "$name: build failed ($log):"
  grep -E "error|Error" "$log" | head -n 20
  echo "0 1" >"$counts"
  exit 1
fi
# shellcheck disable=SC2086  # CTEST_ARGS is a list of words
ctest --test-dir "$dir" --output-on-failure -j "$jobs" ${CTEST_ARGS:-} >>"$log" 2>&1
status=$?
summary="$(grep -E "tests passed, [0-9]+ tests? failed out of" "$log" | tail -n 1)"
total="$(sed -nE 's/.* out of ([0-9]+).*/\1/p' <<<"$summary")"
failed="$(sed -nE 's/.*passed, ([0-9]+) tests? failed.*/\1/p' <<<"$summary")"
if [ -z "$total" ]; then
  echo "$name: no test summary ($log)"
  echo "0 1" >"$counts"
  exit 1
fi
echo "$((total - failed)) $failed" >"$counts"
echo "$name: $summary in $((SECONDS - start)) s"
if [ "$status" -ne 0 ]; then
  sed -n '/The following tests FAILED/,$p' "$log" | grep -E "^\s+[0-9]+ - " | sed 's/^\s*/  /'
  echo "  details: $log"
fi
exit "$status"
