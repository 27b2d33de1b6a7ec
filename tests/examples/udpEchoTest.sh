#!/usr/bin/env bash
# Runs udpEcho as a user would.  Usage: udpEchoTest.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
programs=$1
failures=0
output=$(mktemp)
ns=ns-t$$-echo
trap 'kill %1 2>/dev/null; ip netns del "$ns" 2>/dev/null; rm -f "$output"' EXIT

expect() {  # expect WHAT COMMAND...
  local what=$1
  shift
  "$@" || { echo "FAILED: $what"; failures=$((failures + 1)); }
}
status_of() {
  "$@" >"$output" 2>&1 </dev/null
  echo $?
}

if ! ip netns add "$ns" 2>/dev/null; then
  [ -z "${CI:-}" ] || { echo "FAILED: namespaces are not permitted"; exit 1; }
  echo "SKIPPED: namespaces are not permitted"
  exit 77
fi
ip -n "$ns" link set lo up

# Wrong words: the usage, and status 2.
for words in "" "127.0.0.1" "127.0.0.1 0" "127.0.0.1 65536" "127.0.0.1 7x" "localhost 7000" "1.2.3.4 7 8" \
  "--vrf" "--loud 127.0.0.1 7000" "--vrf $(printf '%101s' | tr ' ' v) 127.0.0.1 7000"; do
  # shellcheck disable=SC2086
  expect "status 2 for '$words'" [ "$(status_of "$programs/udpEcho" $words)" = 2 ]
  expect "usage for '$words'" grep -q "^usage: udpEcho" "$output"
done

# What cannot be opened: one line that says so, and status 1.
expect "status 1" [ "$(status_of "$programs/udpEcho" --netns ns-none 127.0.0.1 7000)" = 1 ]
expect "a reason" grep -qx "udpEcho: socket: No such file or directory" "$output"
expect "status 1" [ "$(status_of "$programs/udpEcho" 192.0.2.1 7000)" = 1 ]
expect "a reason" grep -qx "udpEcho: bind: Cannot assign requested address" "$output"

# A datagram there and back, with a client that is not ours; Ctrl-C ends it with its counters.
for address in 127.0.0.1 ::1; do
  "$programs/udpEcho" --netns "$ns" "$address" 7000 >"$output" 2>&1 &
  for _ in $(seq 100); do grep -q echoing "$output" && break; sleep 0.05; done
  case $address in *:*) peer=UDP6:[$address]:7000 ;; *) peer=UDP4:$address:7000 ;; esac
  answer=$(printf hello | ip netns exec "$ns" socat -t 1 - "$peer")
  expect "the echo from $address" [ "$answer" = hello ]
  kill -INT %1
  wait %1
  expect "status 0 after Ctrl-C" [ $? = 0 ]
  expect "who, size, interface" grep -Eq "^5 bytes from .*[0-9]+ on lo$" "$output"
  expect "the counters" grep -Eq "^udpEcho +1 +1 " "$output"
done

# Bound to every address, it answers from the one that was asked.
"$programs/udpEcho" --netns "$ns" 0.0.0.0 7000 >"$output" 2>&1 &
for _ in $(seq 100); do grep -q echoing "$output" && break; sleep 0.05; done
answer=$(printf hello | ip netns exec "$ns" socat -t 1 - UDP4:127.0.0.2:7000)
expect "the answer from 127.0.0.2" [ "$answer" = hello ]
kill -INT %1
wait %1

exit $((failures > 0))
