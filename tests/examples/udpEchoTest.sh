#!/usr/bin/env bash
# Runs udpEcho as a user would.  Usage: udpEchoTest.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
source "$(dirname "$0")/support.sh"
two_namespaces

# The wrong word is named.
while IFS='|' read -r words wrong; do
  # shellcheck disable=SC2086
  refused 2 "udpEcho: $wrong" "$programs/udpEcho" $words
done <<END
|no ADDRESS
127.0.0.1|no PORT
127.0.0.1 0|0: no number from 1 to 65535
127.0.0.1 65536|65536: no number
127.0.0.1 7x|7x: no number
localhost 7000|localhost: no address
1.2.3.4 7 8|8: one word too many
--vrf|--vrf: 1 required NAME missing
--loud 127.0.0.1 7000|--loud: no such option
--vrf $(printf '%101s' | tr ' ' v) 127.0.0.1 7000|--vrf v
END
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
