#!/usr/bin/env bash
# Runs pingResponder and frameTap as a user would.  Usage: rawExamplesTest.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
programs=$1
failures=0
folder=$(mktemp -d)
output=$folder/output
red=ns-t$$-red blue=ns-t$$-blue
trap 'kill %1 2>/dev/null; for ns in $red $blue; do ip netns del "$ns" 2>/dev/null; done; rm -rf "$folder"' EXIT

expect() {  # expect WHAT COMMAND...
  local what=$1
  shift
  "$@" || { echo "FAILED: $what"; cat "$output"; failures=$((failures + 1)); }
}
refused() {  # refused STATUS FIRST-LINE PROGRAM WORDS...
  local status=$1 line=$2
  shift 2
  "$@" >"$output" 2>&1 </dev/null
  expect "status $status: $*" [ $? = "$status" ]
  expect "'$line': $*" [ "$(head -1 "$output")" = "$line" ]
}
start() {  # start READY PROGRAM WORDS...: until its output has READY
  local ready=$1
  shift
  "$@" >"$output" 2>&1 &
  for _ in $(seq 200); do grep -q "$ready" "$output" && return; sleep 0.05; done
  expect "$*" false
}
stop() {
  kill -INT %1
  wait %1
  expect "status 0 after Ctrl-C" [ $? = 0 ]
}

if ! ip netns add "$red" 2>/dev/null; then
  [ -z "${CI:-}" ] || { echo "FAILED: namespaces are not permitted"; exit 1; }
  echo "SKIPPED: namespaces are not permitted"
  exit 77
fi
ip netns add "$blue"
ip -n "$red" link add veth1 type veth peer name veth1 netns "$blue"
for end in "$red 1" "$blue 2"; do
  # shellcheck disable=SC2086
  set -- $end
  ip -n "$1" link set lo up
  ip -n "$1" addr add "10.77.1.$2/24" dev veth1
  ip -n "$1" addr add "fd77:1::$2/64" dev veth1 nodad
  ip -n "$1" addr add "fe80::$2/64" dev veth1 nodad
  ip -n "$1" link set veth1 up
done
ip netns exec "$red" sysctl -qw net.ipv4.icmp_echo_ignore_all=1 net.ipv6.icmp.echo_ignore_all=1

# Wrong words, and what cannot be opened.
for words in --loud --netns "--vrf $(printf '%101s' | tr ' ' v)" 10.0.0.1; do
  # shellcheck disable=SC2086
  refused 2 "usage: pingResponder [--netns NAME | --vrf NAME] [--ipv6] [--quiet]" "$programs/pingResponder" $words
done
refused 1 "pingResponder: socket: No such file or directory" "$programs/pingResponder" --netns ns-none
refused 1 "pingResponder: socket: Operation not permitted" setpriv --bounding-set=-net_raw "$programs/pingResponder"

# pings NS OPTIONS...: five pings, each answered once.
pings() {
  ip netns exec "$blue" ping -n -i 0.01 -W 2 -c 5 "$@" >"$folder/ping" 2>&1
  expect "answers to ping $*: $(cat "$folder/ping")" \
    grep -q "5 packets transmitted, 5 received, 0% packet loss" "$folder/ping"
}
start answering "$programs/pingResponder" --netns "$red"
pings 10.77.1.1
pings -s 20001 -t 9 10.77.1.1
pings -R 10.77.1.1  # with options in the header
expect "who, interface, size, TTL" grep -qx "ping 5 from 10.77.1.2 on veth1: 20009 bytes, TTL 9" "$output"
stop
expect "the counters" grep -Eq "^pingResponder +15 +15 +0 " "$output"
start answering "$programs/pingResponder" --vrf "${red#ns-}" --ipv6 --quiet
pings fd77:1::1
pings fe80::1%veth1
pings -s 20001 fd77:1::1
stop
expect "the counters" grep -Eq "^pingResponder +15 +15 +0 " "$output"

if [ ! -x "$programs/frameTap" ]; then  # needs filters, which are not in every build
  exit $((failures > 0))
fi
usage="usage: frameTap [--netns NAME | --vrf NAME] [--filter EXPRESSION] [--write FILE] [--promiscuous] DEVICE"
for words in "" "a b" "--filter" "a --write" "--x a"; do
  # shellcheck disable=SC2086
  refused 2 "$usage" "$programs/frameTap" $words
done
refused 2 "frameTap: filter: can't parse filter expression: syntax error" "$programs/frameTap" --filter "udp port" lo
refused 1 "frameTap: socket: No such file or directory" "$programs/frameTap" --netns ns-none lo
refused 1 "frameTap: ioctl(SIOCGIFINDEX): No such device" "$programs/frameTap" --netns "$red" veth9
refused 1 "frameTap: socket: Operation not permitted" setpriv --bounding-set=-net_raw "$programs/frameTap" lo
refused 1 "frameTap: $folder/none/file: No such file or directory" \
  "$programs/frameTap" --netns "$red" --write "$folder/none/file" veth1
echo kept >"$folder/pcap"
refused 1 "frameTap: ioctl(SIOCGIFINDEX): No such device" \
  "$programs/frameTap" --netns "$red" --write "$folder/pcap" veth9
expect "the file of before" [ "$(cat "$folder/pcap")" = kept ]
refused 1 "frameTap: /dev/full: No space left on device" \
  "$programs/frameTap" --netns "$red" --write /dev/full veth1

# Frames of ping, and three in VLAN 5, to others and by a program that knows nothing of ours; the last one has a
# broken header.
ip netns exec "$red" sysctl -qw net.ipv4.icmp_echo_ignore_all=0
start frames "$programs/frameTap" --netns "$red" --filter "icmp or vlan 5" --write "$folder/pcap" veth1
pings 10.77.1.1
for checksum in '\133\111' '\133\111' '\253\315'; do
  printf '\2\0\0\0\0\1\2\0\0\0\0\2\201\0\040\5\10\0E\0\0\34\0\0\0\0\100\375'$checksum'\12\115\5\2\12\115\5\1%26s' x |
    ip netns exec "$blue" socat -u - INTERFACE:veth1
done
for _ in $(seq 100); do [ "$(tail -1 "$output" | awk '{print $5}')" = 13 ] && break; sleep 0.05; done
stop
expect "the broken header" grep -qx "badIpHdrChecksum: 1" "$output"
expect "the counters" grep -Eq "^frameTap +0 +[0-9]" "$output"
row=$(grep -E '^ *[0-9]' "$output" | tail -1 | awk '$1 >= 13 && $2 > $1 * 60 && $3 >= 5 {print $4, $5, $6, $7, $8}')
expect "the last row" [ "$row" = "3 13 13 1 0" ]
tcpdump -n -e -v -r "$folder/pcap" >"$folder/tcpdump" 2>&1
in_file() { expect "$1 times $2 in the file" [ "$(grep -c "$2" "$folder/tcpdump")" = "$1" ]; }
in_file 5 "10.77.1.2 > 10.77.1.1: ICMP echo request"
in_file 5 "10.77.1.1 > 10.77.1.2: ICMP echo reply"
in_file 3 "ethertype 802.1Q (0x8100), length 64: vlan 5, p 1"
in_file 1 "bad cksum abcd"

exit $((failures > 0))
