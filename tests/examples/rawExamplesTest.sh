#!/usr/bin/env bash
# Runs pingResponder and frameTap as a user would.  Usage: rawExamplesTest.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
PATH=$PATH:/usr/sbin
source "$(dirname "$0")/support.sh"
two_namespaces
ip netns exec "$red" sysctl -qw net.ipv4.icmp_echo_ignore_all=1 net.ipv6.icmp.echo_ignore_all=1

for words in --loud --netns "--vrf $(printf '%101s' | tr ' ' v)" 10.0.0.1; do
  # shellcheck disable=SC2086
  refused 2 "pingResponder: " "$programs/pingResponder" $words
done
refused 1 "pingResponder: socket: No such file or directory" "$programs/pingResponder" --netns ns-none
refused 1 "pingResponder: socket: Operation not permitted" setpriv --bounding-set=-net_raw "$programs/pingResponder"

# pings OPTIONS...: five pings from blue, each answered once.
pings() {
  ip netns exec "$blue" ping -n -i 0.01 -W 2 -c 5 "$@" >"$folder/ping" 2>&1
  expect "answers to ping $*: $(cat "$folder/ping")" \
    grep -q "5 packets transmitted, 5 received, 0% packet loss" "$folder/ping"
}
start answering "$programs/pingResponder" --netns "$red"
pings 192.0.2.1
pings -s 20001 -t 9 192.0.2.1
pings -R 192.0.2.1  # with options in the header
expect "who, interface, size, TTL" grep -qx "ping 5 from 192.0.2.2 on v0: 20009 bytes, TTL 9" "$output"
interrupt
expect "the counters" grep -Eq "^pingResponder +15 +15 +0 " "$output"
start answering "$programs/pingResponder" --vrf "${red#ns-}" --ipv6 --quiet
pings 2001:db8::1
pings fe80::1%v0
pings -s 20001 2001:db8::1
interrupt
expect "the counters" grep -Eq "^pingResponder +15 +15 +0 " "$output"

# frameTap needs filters, which are not in every build.
[ -x "$programs/frameTap" ] || exit $((failures > 0))
for words in "" "a b" "--filter" "a --write" "--x a"; do
  # shellcheck disable=SC2086
  refused 2 "frameTap: " "$programs/frameTap" $words
done
tap() { "$programs/frameTap" --netns "$red" "$@"; }
echo kept >"$folder/pcap"
refused 2 "frameTap: filter: can't parse filter expression: syntax error" tap --filter "udp port" v0
refused 1 "frameTap: socket: No such file or directory" "$programs/frameTap" --netns ns-none lo
refused 1 "frameTap: ioctl(SIOCGIFINDEX): No such device" tap --write "$folder/pcap" v9
expect "the file of before" [ "$(cat "$folder/pcap")" = kept ]
refused 1 "frameTap: $folder/none/file: No such file or directory" tap --write "$folder/none/file" v0
refused 1 "frameTap: /dev/full: No space left on device" tap --write /dev/full v0

# Frames of ping, and three in VLAN 5, to others and by a program that knows nothing of ours; the last one has a
# broken header.
ip netns exec "$red" sysctl -qw net.ipv4.icmp_echo_ignore_all=0
"$programs/frameTap" --netns "$red" --filter "icmp or vlan 5" --pcap --write - v0 \
  2>"$folder/lines" > >(cat >"$folder/piped") &
piped=$!
start frames "$programs/frameTap" --netns "$red" --filter "icmp or vlan 5" --write "$folder/pcap" v0
pings 192.0.2.1
frame='\2\0\0\0\0\1\2\0\0\0\0\2\201\0\040\5\10\0E\0\0\34\0\0\0\0\100\375'
for checksum in '\045\173' '\045\173' '\253\315'; do
  printf "$frame"$checksum'\306\63\144\2\306\63\144\1%26s' x |
    ip netns exec "$blue" socat -u - INTERFACE:v0
done
for _ in $(seq 100); do [ "$(tail -1 "$output" | awk '{print $5}')" = 13 ] && break; sleep 0.05; done
interrupt
interrupt "$piped"
expect "the broken header" grep -qx "badIpHdrChecksum: 1" "$output"
row=$(grep -E '^ *[0-9]' "$output" | tail -1 | awk '$1 >= 13 && $2 > $1 * 60 && $3 >= 5 {print $4, $5, $6, $7, $8}')
expect "the last row" [ "$row" = "3 13 13 1 0" ]
tcpdump -n -e -v -r "$folder/pcap" >"$folder/tcpdump" 2>&1
expect "nothing but the capture" [ ! -s "$folder/lines" ]
expect "pcapng" [ "$(head -c 4 "$folder/pcap" | od -An -tx1)" = " 0a 0d 0d 0a" ]
expect "the same in both formats" cmp <(tcpdump -ntevr "$folder/pcap" 2>&1 | tail -n +2) \
  <(tcpdump -ntevr "$folder/piped" 2>&1 | tail -n +2)
in_file() { expect "$1 times $2 in the file" [ "$(grep -c "$2" "$folder/tcpdump")" = "$1" ]; }
in_file 5 "192.0.2.2 > 192.0.2.1: ICMP echo request"
in_file 5 "192.0.2.1 > 192.0.2.2: ICMP echo reply"
in_file 3 "ethertype 802.1Q (0x8100), length 64: vlan 5, p 1"
in_file 1 "bad cksum abcd"

# Hellos of a routing daemon (RFC 2328, RFC 5340), which go to multicast groups.
if ! command -v bird >/dev/null; then
  expect "bird2 is not installed" [ -z "${CI:-}" ]
  exit $((failures > 0))
fi
{
  echo 'router id 192.0.2.2; protocol device {}'
  for version in 2 3; do echo "protocol ospf v$version { area 0 { interface \"v0\" { hello 1; dead 4; }; }; }"; done
} >"$folder/bird.conf"
start frames "$programs/frameTap" --netns "$red" --filter "ip proto 89 or ip6 proto 89" --write "$folder/pcap" v0
frames=$!
ip netns exec "$blue" bird -f -c "$folder/bird.conf" -s "$folder/bird.ctl" >"$folder/bird" 2>&1 &
for _ in $(seq 200); do
  tcpdump -n -r "$folder/pcap" >"$folder/tcpdump" 2>/dev/null
  grep -q "224.0.0.5: OSPFv2, Hello" "$folder/tcpdump" && grep -q "ff02::5: OSPFv3, Hello" "$folder/tcpdump" && break
  sleep 0.05
done
expect "hellos of both protocols: $(cat "$folder/bird" "$folder/tcpdump")" [ "$(grep -c Hello "$folder/tcpdump")" -ge 2 ]
interrupt $frames

exit $((failures > 0))
