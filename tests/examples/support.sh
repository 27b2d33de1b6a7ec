# What the tests of the example programs share. They source it, with the folder of the programs as $1.
programs=$(realpath "$1")
failures=0
folder=$(mktemp -d)
output=$folder/output
red=ns-t$$-red blue=ns-t$$-blue

expect() { # expect WHAT COMMAND...
  local what=$1
  shift
  "$@" || { echo "FAILED: $what"; tail -n 40 "$output"; failures=$((failures + 1)); }
}

# refused STATUS START PROGRAM WORDS...: it ends with the status, and its first line begins so.
refused() {
  local status=$1 start=$2
  shift 2
  "$@" >"$output" 2>&1 </dev/null
  expect "status $status: $*" [ $? = "$status" ]
  expect "'$start...': $*" [ "$(head -1 "$output" | cut -c "1-${#start}")" = "$start" ]
}

# await FILE PATTERN [COUNT]: until so many lines of the file match.
await() {
  for _ in $(seq 200); do
    [ "$(grep -Ec "$2" "$1" 2>/dev/null)" -ge "${3:-1}" ] && return
    sleep 0.05
  done
  expect "a line '$2' in $1: $(tail -n 5 "$1")" false
}

# start READY PROGRAM WORDS...: in the background, until $output has READY.
start() {
  local ready=$1
  shift
  : >"$output" # or a line of the program before would do
  "$@" >"$output" 2>&1 &
  await "$output" "$ready"
}

# interrupt [PROCESS]: Ctrl-C, after which it ends in order.
interrupt() {
  local process=${1:-$!}
  kill -INT "$process"
  wait "$process"
  expect "status 0 after Ctrl-C" [ $? = 0 ]
}

namespaces_removed() {
  local process
  for process in $(jobs -p); do kill "$process" 2>/dev/null; done
  for ns in $red $blue; do ip netns del "$ns" 2>/dev/null; done
  rm -rf "$folder"
}

# Two namespaces with a veth pair v0 between them: 192.0.2.1 and .2, 2001:db8::1 and ::2, fe80::1 and ::2. The test is
# skipped, status 77, where that is not permitted; never in CI.
two_namespaces() {
  if ! ip netns add "$red" 2>/dev/null || ! ip netns add "$blue"; then
    [ -z "${CI:-}" ] || { echo "FAILED: namespaces are not permitted"; exit 1; }
    echo "SKIPPED: namespaces are not permitted"
    exit 77
  fi
  local number=0 ns
  ip -n "$red" link add v0 type veth peer name v0 netns "$blue"
  for ns in $red $blue; do
    number=$((number + 1))
    ip -n "$ns" link set lo up
    ip -n "$ns" addr add "192.0.2.$number/24" dev v0
    ip -n "$ns" addr add "2001:db8::$number/64" dev v0 nodad
    ip -n "$ns" addr add "fe80::$number/64" dev v0 nodad
    ip -n "$ns" link set v0 up
  done
}

trap namespaces_removed EXIT
