#!/usr/bin/env bash
# Runs test groups of scripts/test_groups.txt and prints one line per group
# (its whole output is in DIR/test.log) and the total:
#   test_groups.sh [NAME...]    the groups named, or all of them
# EXCLUDE=REGEX leaves out the CMake groups' tests matching it.
# The builds start in the table's order, BUILDS (default 2) at a time with
# JOBS compile jobs each; each group's tests run as soon as its build is done,
# beside the builds that follow and the other groups' tests. A group marked
# `nice` tests niced (the fuzzers: they only compute, for a fixed time).
# A group that does not build, start or give a result counts as failed, and
# the total line names it. With ccache on the PATH, the compiles go through
# it with a cache in build-ccache/, so what several groups compile alike (the
# Lua-free core for each TLS library, the unit tests on each TLS library) is
# compiled once.
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root" || exit 1
jobs="${JOBS:-$(nproc)}"
# What every CMake group builds unless its line says otherwise: all options
# stated, so that nothing a build directory was configured with before
# (`make demo` turning the unit tests off, say) changes what a group runs.
common=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DWS_CLIENT_LUA=5.1 -DWS_CLIENT_TLS=openssl -DWS_CLIENT_TESTS=ON
        -DWS_CLIENT_SCRIPT_TESTS=ON -DWS_CLIENT_SANITIZE=OFF -DWS_CLIENT_FUZZ=OFF -DWS_CLIENT_BENCH=OFF
        -DWS_CLIENT_WERROR=ON)
if command -v ccache >/dev/null; then
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_DIR="$root/build-ccache" CCACHE_NOHASHDIR=true
  export CCACHE_BASEDIR="$root" CCACHE_MAXSIZE=2G
fi

names=() dirs=() lines=()
# --cmake NAME DIR [CMAKE_ARG...]: one CMake group given here instead of in
# the table (scripts that prepare a root first end with this); its counts go
# to DIR/test-counts.
if [ "${1:-}" = --cmake ]; then
  names=("$2") dirs=("$3") lines=("cmake $(printf '%q ' "${@:4}")")
  set --
  cmake_only=1
else
  cmake_only=0
fi
while [ "$cmake_only" = 0 ] && read -r name dir rest; do
  [[ -z "$name" || "$name" == \#* ]] && continue
  names+=("$name") dirs+=("$dir") lines+=("$rest")
done <scripts/test_groups.txt
selected=()
for i in "${!names[@]}"; do
  if [ $# -eq 0 ] || printf '%s\n' "$@" | grep -qxF "${names[$i]}"; then selected+=("$i"); fi
done
for wanted in "$@"; do
  printf '%s\n' "${names[@]}" | grep -qxF "$wanted" || { echo "no test group '$wanted' in scripts/test_groups.txt" >&2; exit 2; }
done
mkdir -p build-logs
results="$(mktemp -d)"
trap 'rm -rf "$results"' EXIT

# result I PASSED FAILED [WHY]: group I's counts (and why it has none).
result() { echo "$2 $3 ${4:-}" >"$results/$1"; }

# Each group function builds, marks the build done ($results/I.built: the
# next build may start), then tests.

# cmake_group I DIR WORD...: configure, build, ctest.
cmake_group() {
  local i="$1" dir="$2" log="$2/test.log" start=$SECONDS cmake_args=() ctest_args=() target=() word
  local exclude="${EXCLUDE:-}" ctest_nice=()
  shift 2
  for word in "$@"; do
    case "$word" in
      target=*) target=(--target "${word#target=}") ;;
      exclude=*) exclude="${exclude:+$exclude|}${word#exclude=}" ;;
      nice) ctest_nice=(nice -n 10) ;;
      *) cmake_args+=("$word") ;;
    esac
  done
  [ -z "$exclude" ] || ctest_args=(-E "$exclude")
  mkdir -p "$dir"
  rm -f "$dir/CMakeCache.txt"
  if ! { cmake -S . -B "$dir" "${common[@]}" "${cmake_args[@]}" &&
         cmake --build "$dir" -j "$jobs" "${target[@]}"; } \
      >"$log" 2>&1; then
    echo "${names[$i]}: build FAILED ($log):"
    grep -E "error|Error" "$log" | head -n 20 | sed 's/^/  /'
    result "$i" 0 1 "build"
    return
  fi
  local built=$((SECONDS - start))
  touch "$results/$i.built"
  start=$SECONDS
    # the tests mostly wait on peers and time-outs: more of them than cores
    "${ctest_nice[@]}" ctest --test-dir "$dir" --output-on-failure -j $((jobs * 2)) "${ctest_args[@]}" >>"$log" 2>&1
    local summary total failed
    summary="$(grep -E "tests passed, [0-9]+ tests? failed out of" "$log" | tail -n 1)"
    total="$(sed -nE 's/.* out of ([0-9]+).*/\1/p' <<<"$summary")"
    failed="$(sed -nE 's/.*passed, ([0-9]+) tests? failed.*/\1/p' <<<"$summary")"
  if [ -z "$total" ]; then
    echo "${names[$i]}: no test summary ($log)"
    result "$i" 0 1 "no result"
    return
  fi
  result "$i" $((total - failed)) "$failed"
  echo "${names[$i]}: $summary (built in $built s, tested in $((SECONDS - start)) s)"
  if [ "$failed" -ne 0 ]; then
    sed -n '/The following tests FAILED/,$p' "$log" | grep -E "^\s+[0-9]+ - " | sed 's/^\s*/  /'
    echo "  details: $log"
  fi
}

# cross_group I DIR [VAR=VALUE...] ARCH...: cross builds, then their tests
# (cross.sh writes its counts to TEST_COUNTS).
cross_group() {
  local i="$1" dir="$2" env=() arches=() word begun=$SECONDS
  shift 2
  for word in "$@"; do
    if [[ "$word" == *=* ]]; then env+=("$word"); else arches+=("$word"); fi
  done
  mkdir -p "$dir"
  if ! env "${env[@]}" JOBS="$jobs" scripts/cross.sh "$dir" "${arches[@]}" >"$results/$i.build" 2>&1; then
    echo "${names[$i]}: build FAILED:"
    sed 's/^/  /' "$results/$i.build" | tail -n 20
    result "$i" 0 1 "build"
    return
  fi
  touch "$results/$i.built"
  local start=$SECONDS
  env "${env[@]}" JOBS="$jobs" TEST_COUNTS="$results/$i.counts" scripts/cross.sh -t "$dir" "${arches[@]}" \
    >"$results/$i.test" 2>&1
  # one block: the group, then the builds' lines and the legs'
  { echo "${names[$i]}: built in $((start - begun)) s, tested in $((SECONDS - start)) s"
    cat "$results/$i.build"; grep -v ": [0-9]* bytes stripped" "$results/$i.test"; } | sed "1!s/^/  /"
  if [ -s "$results/$i.counts" ]; then cp "$results/$i.counts" "$results/$i"; else result "$i" 0 1 "no result"; fi
}

# run_group I DIR COMMAND...: nothing to build; the command's output goes to
# DIR/test.log; it may write "PASSED FAILED" to $TEST_COUNTS, else its exit
# status counts as one test.
run_group() {
  local i="$1" dir="$2" start=$SECONDS status=0 p f
  shift 2
  mkdir -p "$dir"
  touch "$results/$i.built"
  rm -f "$dir/test-counts"
  TEST_COUNTS="$results/$i.counts" JOBS="$jobs" "$@" >"$dir/test.log" 2>&1 || status=$?
  if [ -s "$results/$i.counts" ]; then cp "$results/$i.counts" "$results/$i"
  elif [ -s "$dir/test-counts" ]; then cp "$dir/test-counts" "$results/$i"
  elif [ "$status" -eq 0 ]; then result "$i" 1 0
  else result "$i" 0 1 "exit status $status"; fi
  read -r p f _ <"$results/$i"
  echo "${names[$i]}: $p passed, $f failed in $((SECONDS - start)) s"
  [ "$f" -eq 0 ] || echo "  details: $dir/test.log"
}

# BUILDS builds at a time (default 2: while one links or configures, the
# other compiles); each group's tests run as soon as its build is done.
started=0
for i in "${selected[@]}"; do
  while [ $((started - $(find "$results" -name '*.built' | wc -l))) -ge "${BUILDS:-2}" ]; do sleep 0.2; done
  started=$((started + 1))
  eval "words=(${lines[$i]})"
  kind="${words[0]}"
  {
    case "$kind" in
      cmake) cmake_group "$i" "${dirs[$i]}" "${words[@]:1}" ;;
      cross) cross_group "$i" "${dirs[$i]}" "${words[@]:1}" ;;
      run) run_group "$i" "${dirs[$i]}" "${words[@]:1}" ;;
      *) echo "${names[$i]}: unknown kind '$kind'"; result "$i" 0 1 "not started" ;;
    esac
    touch "$results/$i.built"  # also when it failed before
  } &
done
wait

passed=0 failed=0 broken=()
for i in "${selected[@]}"; do
  p=0 f=1 why="no result"
  [ -f "$results/$i" ] && read -r p f why <"$results/$i"
  passed=$((passed + p)) failed=$((failed + f))
  [ "$f" -eq 0 ] || broken+=("${names[$i]}${why:+ ($why)}")
done
if [ ${#broken[@]} -eq 0 ]; then
  echo "$passed passed, $failed failed"
else
  echo "$passed passed, $failed failed: $(IFS=,; echo "${broken[*]}" | sed 's/,/, /g')"
fi
[ "$cmake_only" = 0 ] || cp "$results/0" "${dirs[0]}/test-counts" 2>/dev/null || echo "0 1" >"${dirs[0]}/test-counts"
[ "$failed" -eq 0 ]
