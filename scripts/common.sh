# What the scripts share; they source it and are in the project's root then.
cd "$(dirname "${BASH_SOURCE[0]}")/.."
root=$PWD
jobs=$(nproc)

# ccache is used where it happens to be installed.
launcher=()
! command -v ccache >/dev/null || launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

# build PRESET [TARGET...]: configures where needed and builds the targets, or all there is. A terminal shows the
# progress, a log only failures.
build() {
  local preset=$1 folder=build/$1
  shift
  mkdir -p "$folder"
  if [ ! -e "$folder/build.ninja" ] || [ CMakePresets.json -nt "$folder/build.ninja" ]; then
    quietly "$folder/configure.log" cmake --preset "$preset" "${launcher[@]}" || return 1
    touch "$folder/build.ninja"
  fi
  [ $# -gt 0 ] || set -- all everything
  local command=(cmake --build "$folder" -j "$jobs" --target "$@")
  if [ -t 1 ]; then "${command[@]}"; else quietly "$folder/build.log" "${command[@]}"; fi
}

# quietly LOG COMMAND...: runs it, showing the log where it fails.
quietly() {
  local log=$1
  shift
  "$@" >"$log" 2>&1 </dev/null || {
    grep -vE '^\[[0-9]+/[0-9]+\] (Building|Linking)' "$log" >&2 || true
    echo "failed: $* (log: $log)" >&2
    return 1
  }
}

# The sums of all test runs of this script.
passed=0 failed=0 skipped=0

# tests FOLDER [ctest argument...]: runs the tests known in a build folder, counts them, shows those that fail.
tests() {
  local folder=$1 status=0 log total fail skip command
  shift
  log=$root/$folder/ctest
  [ ! -e "$folder/configure.log" ] || sed -n 's/^-- \(.* left out.*\)/  \1/p' "$folder/configure.log"
  # What waits for the kernel on a busy machine may come too late once: such a test is tried again, and the log
  # shows both.
  # Many tests wait for the kernel or a peer most of their time.
  command=(ctest --test-dir "$folder" -j $((2 * jobs)) --no-tests=error --output-on-failure --repeat until-pass:2)
  command+=(--output-junit "$log.xml" "$@")
  if [ -t 1 ]; then
    "${command[@]}" --progress --output-log "$log.log" || status=$?
  else
    "${command[@]}" >"$log.log" 2>&1 </dev/null || status=$?
  fi
  total=$(sum tests "$log.xml") fail=$(sum failures "$log.xml") skip=$(sum skipped "$log.xml")
  passed=$((passed + total - fail - skip)) failed=$((failed + fail)) skipped=$((skipped + skip))
  if [ $status != 0 ]; then
    [ -t 1 ] || grep -vE '^ *Start +[0-9]+:| Passed +[0-9.]+ sec$' "$log.log" >&2 || true
    return 1
  fi
  # Name the tests that passed only at the second try.
  sed -nE 's/^.*Test +#[0-9]+: ([^ ]+) \.*\*\*\*(Failed|Timeout|Exception).*/  \1: passed at the second try/p' \
    "$log.log" | sort -u
  if [ "$skip" != 0 ]; then
    grep -E '\*\*\*Skipped' "$log.log" || true
    if [ "${CI:-}" = true ]; then
      echo "a test that is skipped does not count as run here" >&2
      return 1
    fi
  fi
}

# sum ATTRIBUTE FILE: what the head of a JUnit file says of the run.
sum() { sed -n "/<testsuite /,/>/s/.*[[:space:]]$1=\"\([0-9]*\)\".*/\1/p" "$2" | head -n 1; }

# The closing line; programs read it, so it stands alone.
count_line() {
  local text="$passed passed, $failed failed"
  [ $skipped = 0 ] || text+=", $skipped skipped"
  echo "$text"
}
