#!/usr/bin/env bash
# Runs udpEcho as a user would.  Usage: udpEchoTest.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
source "$(dirname "$0")/support.sh"
two_namespaces

for words in "" "127.0.0.1" "127.0.0.1 0" "127.0.0.1 65536" "127.0.0.1 7x" "localhost 7000" "1.2.3.4 7 8" \
  "--vrf" "--loud 127.0.0.1 7000" "--vrf $(printf '%101s' | tr ' ' v) 127.0.0.1 7000"; do
  # shellcheck disable=SC2086
  refused 2 "usage: udpEcho" "$programs/udpEcho" $words
done
refused 1 "udpEcho: socket: No such file or directory" "$programs/udpEcho" --netns ns-none 127.0.0.1 7000
refused 1 "udpEcho: bind: Cannot assign requested address" "$programs/udpEcho" --netns "$red" 192.0.2.77 7000

# A datagram there and back, with a client that is not ours. Bound to every address, the program answers from the one
# that was asked.
while read -r address peer; do
  start echoing "$programs/udpEcho" --netns "$red" "$address" 7000
  answer=$(printf hello | ip netns exec "$red" socat -t 1 - "$peer:7000")
  expect "the echo from $peer" [ "$answer" = hello ]
  interrupt
  expect "who, size, interface" grep -Eq "^5 bytes from .*[0-9]+ on lo$" "$output"
  expect "the counters" grep -Eq "^udpEcho +1 +1 " "$output"
done <<END
127.0.0.1 UDP4:127.0.0.1
::1 UDP6:[::1]
0.0.0.0 UDP4:127.0.0.2
END

exit $((failures > 0))
