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

out='     1     0.000000  eth ip udp        IP 10.0.0.1.1000 > 10.0.0.2.53: UDP, length 18, 60 bytes
     2     1.500000  eth ip udp        IP 10.0.0.1.1000 > 10.0.0.2.53: UDP, length 18 [badIpHdrChecksum], 60 bytes
     3     3.000000  eth vlan vlan ip udp  vlan 7, vlan 8, IP 10.0.0.1.1000 > 10.0.0.2.53: UDP, length 18, 68 bytes
     4     4.500000  eth arp           ARP [badArpPkt], 41 bytes
     5     6.000000  eth ip6 icmp6     NS, 86 bytes
     6     7.500000  eth ip6 icmp6     NS [badIcmp6Checksum], 86 bytes
     7     9.000000  eth ip6 icmp6     NS [icmp6OptLenZero], 86 bytes
     8    10.500000  eth ip6           IP6 [nonIp6Hdr], 86 bytes
     9    12.000000  eth ip udp        UDP4 [badIpPayloadLen] [badIpHdrChecksum], 60 bytes
    10    13.500000  eth ip ah         IP 10.0.0.1 > 10.0.0.2: Ipv6NoNxt, 46 bytes
    11    15.000000  eth ip udp        IP 10.0.0.1.1000 > 10.0.0.2.53: UDP, length 18, 44 of 60 bytes
    12    16.500000  eth llc snap      llc, snap, length 0 [pktTooShort], 18 bytes
    13    18.000000  eth               Ethernet [pktTooShort], 11 bytes
    14    19.500000  eth               0a:00:00:00:00:02 > 0a:00:00:00:00:01, type 0x1234, length 2, 16 bytes'
out=${out//UDP4/IP 10.0.0.1.1000 > 10.0.0.2.53: UDP, length 18}
out=${out//NS/IP6 fe80::1 > ff02::1:ff00:2: ICMP6 NeighborSolicitation target fe80::2, length 32}
table='noError                      eth                           1
noError                      eth ip ah                     1
noError                      eth ip udp                    2
noError                      eth ip6 icmp6                 1
noError                      eth vlan vlan ip udp          1
pktTooShort                  eth                           1
pktTooShort                  eth llc snap                  1
badArpPkt                    eth arp                       1
badIpHdrChecksum             eth ip udp                    1
badIpPayloadLen              eth ip udp                    1
nonIp6Hdr                    eth ip6                       1
badIcmp6Checksum             eth ip6 icmp6                 1
icmp6OptLenZero              eth ip6 icmp6                 1
all                                                       14
1 of them the capture has cut short: not all could be checked.'
err=
all_lines=$out
for kind in pcap pcapng; do
  $kind "${frames[@]}" | octets >"all.$kind"
  out=$all_lines$'\n'"result                       layers                   frames"$'\n'$table
  run 0 "all.$kind"
  out=${out#"$all_lines"$'\n'}
  run 0 --quiet "all.$kind"
done
run 0 --quiet - <all.pcap
cp all.pcap -- --quiet
run 0 --quiet -- --quiet

# The other forms of the report.
out='{"frame":1,"layers":[{"layer":"eth","dst":"0a:00:00:00:00:01","src":"0a:00:00:00:00:02","type":2048},'
out+='{"layer":"ip","version":4,"headerLength":20,"dscp":0,"ecn":0,"totalLength":46,"id":1,"flags":0,'
out+='"fragmentOffset":0,"ttl":64,"protocol":17,"checksum":26301,"src":"10.0.0.1","dst":"10.0.0.2"},'
out+='{"layer":"udp","srcPort":1000,"dstPort":53,"length":26,"checksum":0}],"errors":["badIpHdrChecksum"]}'
pcap "${frames[1]}" | octets >one.pcap
run 0 --json one.pcap
out='     1     0.000000  eth arp           ARP [badArpPkt], 41 bytes
eth, 14 bytes at 0, payload 27
  dst                      0a:00:00:00:00:01
  src                      0a:00:00:00:00:02
  type                     0x0806 ArpIp
arp, 27 bytes at 14, payload 0 [badArpPkt]
  hardwareType             1
  protocolType             0x0800
  hardwareBytes            6
  protocolBytes            4
  operation                1
  senderMac                00:00:00:00:00:00
  senderIp                 0.0.0.0
  targetMac                00:00:00:00:00:00
eth         0000  0a 00 00 00 00 01 0a 00  00 00 00 02 08 06        ..............
arp         000e  00 01 08 00 06 04 00 01  00 00 00 00 00 00 00 00  ................
            001e  00 00 00 00 00 00 00 00  00 00 00                 ...........
result                       layers      frames
badArpPkt                    eth arp          1
all                                           1'
pcap "${frames[3]}" | octets >arp.pcap
run 0 --verbose --hex arp.pcap
out='result                       layers         frames
noError                      eth ip udp          2
badIpHdrChecksum             eth ip udp          1
all                                              3
protocol     frames         bytes
eth               3           180
ip                3           138
udp               3            78
conversation                              frames         bytes
10.0.0.1 port 1000 - 10.0.0.2 port 53          3           180
errors
 -50  badIpHdrChecksum                                             1'
pcap "${frames[0]}" "${frames[1]}" "${frames[0]}" | octets >stats.pcap
run 0 --quiet --stats stats.pcap

# A filter sees the frame as it is in the capture; it counts what it shows.
out='     3     3.000000  eth vlan vlan ip udp  vlan 7, vlan 8, IP 10.0.0.1.1000 > 10.0.0.2.53: UDP, length 18, 68 bytes
result                       layers                   frames   matching
noError                      eth ip udp                    1          0
noError                      eth ip6 icmp6                 1          0
noError                      eth vlan vlan ip udp          1          1
all                                                        3          1'
pcap "${frames[0]}" "${frames[4]}" "${frames[2]}" | octets >three.pcap
run 0 three.pcap 'vlan 7 and vlan and udp port 53'
out='result                       layers     frames
all                                          0'
pcap | octets >none.pcap
run 0 none.pcap

# Wrong arguments, and what libpcap says of a filter that is none: a line, and status 2.
out='' usage=$("$tool" --help)
[ "${usage#usage: frameReport}" != "$usage" ] || { echo "FAILED: --help"; failures=$((failures + 1)); }
help='(--help says how it is used)'
err="frameReport: no FILE $help"
run 2
err="frameReport: --quit: no such option $help"
run 2 --quit three.pcap
err="frameReport: tcp: one word too many $help"
run 2 three.pcap udp tcp
err="frameReport: filter: can't parse filter expression: syntax error"
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
out='result                       layers         frames
noError                      eth ip udp      65536
all                                          65536'
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
