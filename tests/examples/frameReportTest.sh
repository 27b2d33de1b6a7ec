#!/usr/bin/env bash
# Runs frameReport as a user would, on captures made here.  Usage: frameReportTest.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
tool=$(realpath "$1")/frameReport
failures=0
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder" || exit 1

octets() { printf %b "$(sed 's/../\\x&/g')"; } # of hexadecimal digits
little() { printf %08x "$1" | sed 's/\(..\)\(..\)\(..\)\(..\)/\4\3\2\1/'; }

# pcap FRAME..., pcapng FRAME...: a capture, in hexadecimal digits. A FRAME is in such digits too; behind a slash
# there may be its length on the wire, where the capture has cut it. One comes each 1.5 seconds.
pcap() {
  printf d4c3b2a1020004000000000000000000ffff0000"$(little "${linkType:-1}")"
  records pcap "$@"
}
pcapng() {
  printf 0a0d0d0a1c0000004d3c2b1a01000000ffffffffffffffff1c000000
  printf 010000001400000001000000ffff000014000000
  records pcapng "$@"
}
records() {
  local kind=$1 frame data wire time=0 length
  for frame in "${@:2}"; do
    data=${frame%/*} wire=${frame#*/}
    [ "$wire" != "$frame" ] || wire=$((${#data} / 2))
    if [ "$kind" = pcap ]; then
      little $((100 + time / 1000000)) && little $((time % 1000000))
    else
      length=$(little $((32 + (${#data} / 2 + 3) / 4 * 4)))
      printf %s 06000000 "$length" 0000000000000000 && little "$time"
    fi
    little $((${#data} / 2)) && little "$wire" && printf %s "$data"
    if [ "$kind" = pcapng ]; then
      while [ $((${#data} % 8)) != 0 ]; do data+=00 && printf 00; done
      printf %s "$length"
    fi
    time=$((time + 1500000))
  done
}

# run STATUS ARGUMENT...: expects the status, and standard output and standard error as in $out and $err.
run() {
  local status=$1 got
  shift
  "$tool" "$@" >got.out 2>got.err
  got=$?
  if [ $got != "$status" ] || [ "$(cat got.out)" != "$out" ] || [ "$(cat got.err)" != "$err" ]; then
    printf 'FAILED: frameReport %s\nstatus %s, wanted %s\n' "$*" $got "$status"
    diff <(printf %s "${out:+$out$'\n'}") got.out
    diff <(printf %s "${err:+$err$'\n'}") got.err
    failures=$((failures + 1))
  fi
}

macs=0a00000000010a0000000002
ip4=4500002e00010000401166bc0a0000010a000002
udp=03e80035001a0000787878787878787878787878787878787878
ip6=6000000000203afffe800000000000000000000000000001ff0200000000000000000001ff000002
target=00000000fe800000000000000000000000000002
frames=(
  "${macs}0800$ip4$udp"
  "${macs}0800${ip4/66bc/66bd}$udp"
  "${macs}88a80007810020080800$ip4$udp"
  "${macs}0806000108000604000100000000000000000000000000000000000000"
  "${macs}86dd${ip6}87007296${target}0101$macs"
  "${macs}86dd${ip6}87007297${target}0101$macs"
  "${macs}86dd${ip6}87007297${target}0100$macs"
  "${macs}86dd${ip6/6000/5000}87007296${target}0101$macs"
  "${macs}0800${ip4/002e/002f}$udp"
  "${macs}08004500002000010000403366a80a0000010a0000023b0100000000000000000000"
  "${macs}0800$ip4${udp:0:20}/60"
  "${macs}0004aaaa0300"
  "${macs:2}"
  "${macs}12344500"
)
# A source address makes the option of 8 octets.
for i in 4 5 6 7; do frames[i]=${frames[i]%$macs}0a0000000002; done

out='     1     0.000000  noError           IPv4 Udp      10.0.0.1 port 1000 > 10.0.0.2 port 53, 60 bytes
     2     1.500000  badIpHdrChecksum  IPv4 Udp      10.0.0.1 > 10.0.0.2, 60 bytes
     3     3.000000  noError           IPv4 Udp      10.0.0.1 port 1000 > 10.0.0.2 port 53 vlan 7 vlan 8, 68 bytes
     4     4.500000  wrongEthType      ArpIp         0a:00:00:00:00:02 > 0a:00:00:00:00:01, 41 bytes
     5     6.000000  noError           IPv6 Icmpv6   fe80::1 > ff02::1:ff00:2 NeighborSolicitation, 86 bytes
     6     7.500000  badIcmp6Checksum  IPv6 Icmpv6   fe80::1 > ff02::1:ff00:2, 86 bytes
     7     9.000000  icmp6OptLenZero   IPv6 Icmpv6   fe80::1 > ff02::1:ff00:2 NeighborSolicitation, 86 bytes
     8    10.500000  nonIp6Hdr         IPv6          0a:00:00:00:00:02 > 0a:00:00:00:00:01, 86 bytes
     9    12.000000  badIpPayloadLen   IPv4 Udp      10.0.0.1 > 10.0.0.2, 60 bytes
    10    13.500000  badAhLen          IPv4 Ah       10.0.0.1 > 10.0.0.2, 46 bytes
    11    15.000000  badIpPayloadLen   IPv4 Udp      10.0.0.1 > 10.0.0.2, 44 of 60 bytes
    12    16.500000  pktTooShort       LLC           0a:00:00:00:00:02 > 0a:00:00:00:00:01, 18 bytes
    13    18.000000  pktTooShort       -             no Ethernet header, 11 bytes
    14    19.500000  pktTooShort       type 0x1234   0a:00:00:00:00:02 > 0a:00:00:00:00:01, 16 bytes'
table='noError                      IPv4 Udp             2
noError                      IPv6 Icmpv6          1
pktTooShort                  -                    1
pktTooShort                  LLC                  1
pktTooShort                  type 0x1234          1
wrongEthType                 ArpIp                1
badIpHdrChecksum             IPv4 Udp             1
badIpPayloadLen              IPv4 Udp             2
nonIp6Hdr                    IPv6                 1
badIcmp6Checksum             IPv6 Icmpv6          1
icmp6OptLenZero              IPv6 Icmpv6          1
badAhLen                     IPv4 Ah              1
all                                              14
1 of them the capture has cut short: their lengths may seem wrong.'
err=
all_lines=$out
for kind in pcap pcapng; do
  $kind "${frames[@]}" | octets >"all.$kind"
  out=$all_lines$'\n'"result                       protocol        frames"$'\n'$table
  run 0 "all.$kind"
  out=${out#"$all_lines"$'\n'}
  run 0 --quiet "all.$kind"
done
run 0 --quiet - <all.pcap
cp all.pcap -- --quiet
run 0 --quiet -- --quiet

# A filter sees the frame as it is in the capture; it counts what it shows.
out='     3     3.000000  noError           IPv4 Udp      10.0.0.1 port 1000 > 10.0.0.2 port 53 vlan 7 vlan 8, 68 bytes
result                       protocol        frames   matching
noError                      IPv4 Udp             2          1
noError                      IPv6 Icmpv6          1          0
all                                               3          1'
pcap "${frames[0]}" "${frames[4]}" "${frames[2]}" | octets >three.pcap
run 0 three.pcap 'vlan 7 and vlan and udp port 53'
out='result                       protocol     frames
all                                            0'
pcap | octets >none.pcap
run 0 none.pcap

# Wrong arguments, and what libpcap says of a filter that is none: the usage, and status 2.
out='' usage=$("$tool" --help)
[ "${usage#usage: frameReport}" != "$usage" ] || { echo "FAILED: --help"; failures=$((failures + 1)); }
err=$usage
run 2
run 2 --quit three.pcap
run 2 three.pcap udp tcp
err="frameReport: filter: can't parse filter expression: syntax error"$'\n'$usage
run 2 three.pcap 'udp port'

# What cannot be read at all.
err='frameReport: none: No such file or directory'
run 1 none
err='frameReport: .: error reading dump file: Is a directory'
run 1 .
echo 'no capture' >text
err='frameReport: text: unknown file format'
run 1 text
linkType=113 pcap "${frames[0]}" | octets >cooked.pcap
err='frameReport: cooked.pcap: not a capture of Ethernet frames but of Linux cooked v1'
run 1 cooked.pcap
"$tool" all.pcap >/dev/full 2>&1 && { echo "FAILED: status 0 though nothing could be written"; failures=1; }

# A file that ends too early, at every kind of place: what is before that is reported. CUT:COUNT, and ":end" where
# nothing is missing; a frame of 60 bytes takes 76 in pcap and 92 in pcapng.
cuts() {
  local kind=$1 cut count whole status
  $kind "${frames[0]}" "${frames[1]}" | octets >"whole.$kind"
  shift
  for cut in "$@"; do
    IFS=: read -r cut count whole <<<"$cut"
    head -c "$cut" "whole.$kind" >cut
    "$tool" --quiet cut >got.out 2>got.err
    status=$?
    if [ "$(sed -n 's/^all  *//p' got.out)" != "$count" ] || { [ -n "$whole" ] && [ $status != 0 ]; } ||
      { [ -z "$whole" ] && { [ $status != 1 ] || ! grep -q '^frameReport: cut: ' got.err; }; } ||
      { [ -n "$count" ] && [ -z "$whole" ] && ! grep -q ": after frame $count: truncated " got.err; }; then
      echo "FAILED: $kind cut to $cut bytes: status $status" && cat got.out got.err
      failures=$((failures + 1))
    fi
  done
}
cuts pcap 0 3 4 23 24:0:end 25:0 39:0 40:0 99:0 100:1:end 116:1 175:1 176:2:end
cuts pcapng 0 3 4 8 12 27 28 29 47 48:0:end 51:0 56:0 75:0 76:0 100:0 136:0 139:0 140:1:end 144:1 231:1 232:2:end

# Lengths that lie: nothing is read that is not there.
{ head -c 32 whole.pcap && printf 'ffffff7fffffff7f' | octets && tail -c +49 whole.pcap; } >lying.pcap
"$tool" lying.pcap >got.out 2>got.err
[ $? = 1 ] && grep -q "^frameReport: lying.pcap: after frame 0: " got.err ||
  { echo "FAILED: a record of 2 GiB"; failures=$((failures + 1)); }

# A large file shows how far it is, on a terminal only, and where no frames are shown.
records pcap "${frames[0]}" | octets >record
for _ in {1..16}; do cat record record >twice && mv twice record; done
pcap | octets | cat - record >large.pcap
out='result                       protocol     frames
noError                      IPv4 Udp      65536
all                                        65536'
err=
run 0 --quiet large.pcap
on_terminal() { script -qec "'$tool' $1" /dev/null </dev/null | tr '\r' '\n'; }
shown=$(on_terminal "--quiet large.pcap")
grep -q '^\[#\{25\} *\]  50% [0-9]* frames' <<<"$shown" && grep -q '^all  *65536$' <<<"$shown" ||
  { echo "FAILED: the progress on a terminal: $shown"; failures=$((failures + 1)); }
for words in "large.pcap" "--quiet all.pcap"; do
  ! on_terminal "$words" | grep -q '%' || { echo "FAILED: progress of $words"; failures=$((failures + 1)); }
done

exit $((failures > 0))
