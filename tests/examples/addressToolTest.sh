#!/usr/bin/env bash
# Runs addressTool as a user would.  Usage: addressToolTest.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
tool=$1/addressTool
failures=0

# run STATUS INPUT WORDS...: expects the status, standard output and standard error given in $out and $err.
run() {
  local status=$1 input=$2 got_out got_err got_status
  shift 2
  got_err=$(mktemp)
  got_out=$(printf %b "$input" | "$tool" "$@" 2>"$got_err")
  got_status=$?
  if [ $got_status != "$status" ] || [ "$got_out" != "$out" ] || [ "$(cat "$got_err")" != "$err" ]; then
    printf 'FAILED: addressTool %s\nstatus %s, wanted %s\n' "$*" $got_status "$status"
    diff <(echo "$out") <(echo "$got_out")
    diff <(echo "$err") "$got_err"
    failures=$((failures + 1))
  fi
  rm -f "$got_err"
}

out='address              type                mapped                   multicast          what holds
10.1.2.3/24          IpAddrWithMask      ::ffff:10.1.2.3/120                         unicast private
10.0.0.0/8           Prefix              ::ffff:10.0.0.0/104                         unicast private
ff02::1              Ip6Addr                                      33:33:00:00:00:01  linkLocal multicast linkLocalMulticast
239.1.1.1            IpAddr              ::ffff:239.1.1.1         01:00:5e:01:01:01  private multicast routableMulticast
::ffff:1.2.3.0/120   Ip6Prefix           1.2.3.0/24                                  unicast globalUnicast v4MappedV6
2001:db8::1          Ip6Addr                                      ff02::1:ff00:1     unicast globalUnicast
1.2.3.4/255.0.255.0  IpAddrWithFullMask  ::ffff:1.2.3.4                              unicast
00:1c:73:0a:0b:0c    EthAddr             fe80::21c:73ff:fe0a:b0c                     unicast
0.0.0.0/0            Prefix              ::ffff:0.0.0.0/96                           any unspecified thisNetwork unicast defaultRoute
::1/128              Ip6Prefix                                                       unicast loopback host'
err=
run 0 '' 10.1.2.3/24 10.0.0.0/8 FF02::1 239.1.1.1 ::ffff:1.2.3.0/120 2001:DB8:0::1 1.2.3.4/255.0.255.0 \
  001c.730a.0b0c 0.0.0.0/0 -- ::1/128

# A bad text gets its number and message, and the rest is still done.
out='address     type    mapped              multicast  what holds
0.0.0.0/32  Prefix  ::ffff:0.0.0.0/128             any unspecified thisNetwork unicast host'
err="addressTool: text 1: Invalid IpGenAddr
addressTool: text 2: Invalid IpAddr
addressTool: text 3: Invalid IPv4 prefix length
addressTool: text 4: Ip6Addr: only one '::' allowed
addressTool: text 6: Invalid IpGenAddr"
run 1 '' abc 10.0.0 10.0.0.0/33 1::2::3 0.0.0.0/32 -- --json

# Lines, as JSON. The number is that of the line; the last one needs no end.
out='[
  {
    "number": 3,
    "text": "239.0.0.1",
    "type": "IpAddr",
    "predicates": [
      "private",
      "multicast",
      "routableMulticast"
    ],
    "mapped": "::ffff:239.0.0.1",
    "multicastMac": "01:00:5e:00:00:01"
  },
  {
    "number": 5,
    "text": "2001:db8::1",
    "type": "Ip6Addr",
    "predicates": [
      "unicast",
      "globalUnicast"
    ],
    "solicitedNode": "ff02::1:ff00:1"
  },
  {
    "number": 6,
    "text": "01:00:5e:00:00:01",
    "type": "EthAddr",
    "predicates": [
      "multicast",
      "ip4LinkLocalMulticast"
    ]
  }
]'
err='addressTool: line 4: Ip6Addr: hex digit expected'
run 1 '# groups\n\n  239.0.0.1\t\r\n1:\n2001:DB8::1\n1-0-5e-0-0-1' --json
out='[]' err=''
run 0 '\n' --json
out=''
run 0 ''
err='addressTool: line 1: Invalid IpGenAddr'
run 1 '1.2.3.4\0\n'

# Lines as a table, whose bad one is left out.
out='address                    type                 mapped                  multicast          what holds
169.254.1.1                IpAddr               ::ffff:169.254.1.1                         unicast linkLocal
127.0.0.0/32               Prefix               ::ffff:127.0.0.0/128                       unicast private loopback loopbackBase host
224.0.0.13                 IpAddr               ::ffff:224.0.0.13       01:00:5e:00:00:0d  multicast reservedMulticast linkLocalMulticast pimRouters
255.255.255.255            IpAddr               ::ffff:255.255.255.255                     private broadcast
240.0.0.1/4                IpAddrWithMask       ::ffff:240.0.0.1/100                       unicast reserved
::ffff:1.2.3.4             Ip6Addr              1.2.3.4                 ff02::1:ff02:304   unicast globalUnicast v4MappedV6
::ffff:1.2.3.4/95          Ip6AddrWithMask                                                 unicast globalUnicast v4MappedV6
2001:db8::1/ffff:0:ffff::  Ip6AddrWithFullMask                                             unicast globalUnicast
ff0e::d/16                 Ip6AddrWithMask                              33:33:00:00:00:0d  multicast routableMulticast
ff02::d                    Ip6Addr                                      33:33:00:00:00:0d  linkLocal multicast linkLocalMulticast pimRouters
fe80::1                    Ip6Addr                                      ff02::1:ff00:1     unicast linkLocal linkLocalUnicast linkLocalUnicast2
fec0::/10                  Ip6Prefix                                                       unicast globalUnicast siteLocal
fd00::1                    Ip6Addr                                      ff02::1:ff00:1     unicast globalUnicast uniqueLocal
::                         Ip6Addr                                                         unspecified unicast
ff:ff:ff:ff:ff:ff          EthAddr                                                         broadcast
33:33:00:00:00:01          EthAddr                                                         multicast ip6Multicast
01:80:c2:00:00:0e          EthAddr                                                         multicast ieeeLinkConstrained'
err='addressTool: line 3: Invalid IPv4 address'
run 1 '169.254.1.1\n127.0.0.0/32\n10.0.0/8\n224.0.0.13\n255.255.255.255\n240.0.0.1/4\n::ffff:1.2.3.4\n::ffff:1.2.3.4/95\n'\
'2001:db8::1/ffff:0:ffff::\nFF0E::d/16\nff02::d\nfe80::1\nfec0::/10\nfd00::1\n0::0\nff-ff-ff-ff-ff-ff\n33:33:0:0:0:1\n'\
'0180.c200.000e\n'

# Words, as JSON.
out='[
  {
    "number": 2,
    "text": "00:00:00:00:00:01",
    "type": "EthAddr",
    "predicates": [
      "unicast"
    ],
    "linkLocal": "fe80::200:ff:fe00:1"
  }
]'
err='addressTool: text 1: Invalid IpAddr'
run 1 '' --json 1.2.3 0-0-0-0-0-1

# Wrong options: the usage, and status 2.
for words in -x --jsn "1.2.3.4 --table" -; do
  # shellcheck disable=SC2086
  usage=$("$tool" $words 2>&1 </dev/null)
  if [ $? != 2 ] || [ "${usage#usage: addressTool}" = "$usage" ]; then
    echo "FAILED: no usage and status 2 for '$words'"
    failures=$((failures + 1))
  fi
done
"$tool" 1.2.3.4 >/dev/full 2>&1 && { echo "FAILED: status 0 though nothing could be written"; failures=1; }
"$tool" </ >/dev/null 2>&1 && { echo "FAILED: status 0 though nothing could be read"; failures=1; }

exit $((failures > 0))
