#!/usr/bin/env bash
# Runs the demo whole, and interrupted at many a moment.  Usage: demoTest.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
source "$(dirname "$0")/support.sh"
two_namespaces
nothing_left() { [ ! -e /run/netns/ns-red ] && [ ! -e /run/netns/ns-blue ]; }

refused 2 "wirlDemo: all: one word too many" "$programs/wirlDemo" all
"$programs/wirlDemo" >"$output" 2>&1
expect "status 0" [ $? = 0 ]
expect "all of it worked" grep -q "all of it worked" "$output"
expect "nothing left" nothing_left
if [ -x "$programs/frameReport" ]; then
  expect "no frame bad" [ -z "$(grep -E '^(bad|non|pkt|icmp6)' "$output")" ]
fi

# Ctrl-C while it sets up, while agents start and while they work: it ends at once and in order.
for hundredths in 0 1 2 4 8 12 16 20 30 40; do
  timeout --foreground --signal=INT --kill-after=5 "$(printf '0.%02d1' $hundredths)" "$programs/wirlDemo" \
    >"$output" 2>&1
  status=$?
  [ $status = 0 ] && break # it was done before
  expect "an orderly end, not status $status, when interrupted after $hundredths/100 s" [ $status = 124 ]
  expect "nothing left" nothing_left
done

"$programs/wirlDemo" 2>/dev/null | head -n 1 >"$output"
expect "nothing left by a demo that nobody reads on" nothing_left

exit $((failures > 0))
