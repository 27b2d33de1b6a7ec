#!/usr/bin/env bash
# Runs the demo whole, and interrupted at many a moment.  Usage: demoTest.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
demo=$1/wirlDemo
failures=0
output=$(mktemp)
trap 'rm -f "$output"' EXIT

expect() {  # expect WHAT COMMAND...
  local what=$1
  shift
  "$@" || { echo "FAILED: $what"; cat "$output"; failures=$((failures + 1)); }
}
nothing_left() { [ ! -e /run/netns/ns-red ] && [ ! -e /run/netns/ns-blue ]; }

if ! ip netns add "ns-t$$" 2>/dev/null; then
  [ -z "${CI:-}" ] || { echo "FAILED: namespaces are not permitted"; exit 1; }
  echo "SKIPPED: namespaces are not permitted"
  exit 77
fi
ip netns del "ns-t$$"

"$demo" --help >"$output" 2>&1
expect "status 2 for words" [ $? = 2 ]
"$demo" >"$output" 2>&1
expect "status 0" [ $? = 0 ]
expect "all of it worked" grep -q "all of it worked" "$output"
expect "nothing left" nothing_left
if [ -x "$1/frameReport" ]; then
  expect "its frames checked" grep -Eq "^noError +IPv6 Icmpv6 +[1-9]" "$output"
  expect "no frame bad" [ -z "$(grep -E '^(bad|non|pkt|icmp6)' "$output")" ]
fi

# Ctrl-C while it sets up, while agents start and while they work: it ends at once and in order.
for hundredths in 0 1 2 4 8 12 16 20 30 40; do
  timeout --foreground --signal=INT --kill-after=5 "$(printf '0.%02d1' $hundredths)" "$demo" >"$output" 2>&1
  status=$?
  [ $status = 0 ] && break # it was done before
  expect "an orderly end, not status $status, when interrupted after $hundredths/100 s" [ $status = 124 ]
  expect "nothing left" nothing_left
done

exit $((failures > 0))
