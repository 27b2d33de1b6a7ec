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

out='address                     type                 mapped                    multicast           what holds
10.1.2.3/24                 IpAddrWithMask       ::ffff:10.1.2.3/120                           unicast private
10.0.0.0/8                  Prefix               ::ffff:10.0.0.0/104                           unicast private
ff02::1                     Ip6Addr                                        33:33:00:00:00:01   linkLocal multicast linkLocalMulticast
239.1.1.1                   IpAddr               ::ffff:239.1.1.1          01:00:5e:01:01:01   private multicast routableMulticast
::ffff:1.2.3.0/120          Ip6Prefix            1.2.3.0/24                                    unicast globalUnicast v4MappedV6
2001:db8::1                 Ip6Addr                                        ff02::1:ff00:1      unicast globalUnicast
1.2.3.4/255.0.255.0         IpAddrWithFullMask   ::ffff:1.2.3.4                                unicast
00:00:5e:00:53:0c           EthAddr              fe80::200:5eff:fe00:530c                      unicast
0.0.0.0/0                   Prefix               ::ffff:0.0.0.0/96                             any unspecified thisNetwork unicast defaultRoute
::1/128                     Ip6Prefix                                                          unicast loopback host'
err=
run 0 '' 10.1.2.3/24 10.0.0.0/8 FF02::1 239.1.1.1 ::ffff:1.2.3.0/120 2001:DB8:0::1 1.2.3.4/255.0.255.0 \
  0000.5e00.530c 0.0.0.0/0 -- ::1/128

# A bad text gets its number and message, and the rest is still done.
out='address                     type                 mapped                    multicast           what holds
0.0.0.0/32                  Prefix               ::ffff:0.0.0.0/128                            any unspecified thisNetwork unicast host'
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
out='address                     type                 mapped                    multicast           what holds
169.254.1.1                 IpAddr               ::ffff:169.254.1.1                            unicast linkLocal
127.0.0.0/32                Prefix               ::ffff:127.0.0.0/128                          unicast private loopback loopbackBase host
224.0.0.13                  IpAddr               ::ffff:224.0.0.13         01:00:5e:00:00:0d   multicast reservedMulticast linkLocalMulticast pimRouters
255.255.255.255             IpAddr               ::ffff:255.255.255.255                        private broadcast
240.0.0.1/4                 IpAddrWithMask       ::ffff:240.0.0.1/100                          unicast reserved
::ffff:1.2.3.4              Ip6Addr              1.2.3.4                   ff02::1:ff02:304    unicast globalUnicast v4MappedV6
::ffff:1.2.3.4/95           Ip6AddrWithMask                                                    unicast globalUnicast v4MappedV6
2001:db8::1/ffff:0:ffff::   Ip6AddrWithFullMask                                                unicast globalUnicast
ff0e::d/16                  Ip6AddrWithMask                                33:33:00:00:00:0d   multicast routableMulticast
ff02::d                     Ip6Addr                                        33:33:00:00:00:0d   linkLocal multicast linkLocalMulticast pimRouters
fe80::1                     Ip6Addr                                        ff02::1:ff00:1      unicast linkLocal linkLocalUnicast linkLocalUnicast2
fec0::/10                   Ip6Prefix                                                          unicast globalUnicast siteLocal
fd00::1                     Ip6Addr                                        ff02::1:ff00:1      unicast globalUnicast uniqueLocal
::                          Ip6Addr                                                            unspecified unicast
ff:ff:ff:ff:ff:ff           EthAddr                                                            broadcast
33:33:00:00:00:01           EthAddr                                                            multicast ip6Multicast
01:80:c2:00:00:0e           EthAddr                                                            multicast ieeeLinkConstrained'
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

# Reckoning, line by line, what is wrong told in between.
out='192.0.2.0/26
192.0.2.64/26
192.0.2.128/26
192.0.2.192/26
192.0.2.128/26'
err='addressTool: text 2: Invalid subnet length
addressTool: text 3: Invalid prefix - Non-zero after prefix length'
run 1 '' --subnets 26 192.0.2.0/24 10.0.0.0/27 192.0.2.1/24 192.0.2.128/26
out='10.0.1.0
11.0.0.0/8
2001:db9::/32
::1'
err='addressTool: line 4: nothing is behind the last one
addressTool: line 5: Invalid IpAddr'
run 1 '10.0.0.255\n10.0.0.0/8\n2001:db8::/32\n255.255.255.255\n1.2.3\n::' --next
out='10.1.2.0/24 yes
11.0.0.1 no
2001:db8::1 no'
err='addressTool: text 4: Invalid IpGenAddr'
run 1 '' --contains 10.0.0.0/8 10.1.2.0/24 11.0.0.1 2001:db8::1 x
out='10.0.0.0/8
192.0.2.1/32
2001:db8::/127'
err='addressTool: line 5: Invalid IpGenAddr'
run 1 '10.128.0.0/9\n2001:db8::1\n10.0.0.0/9\n10.1.1.1\nx\n2001:db8::\n192.0.2.1' --summarise

# Routes: the longest match and what stands behind it.
routes=$(mktemp)
printf '# of two families\n10.0.0.0/8 core\n  10.1.0.0/16\tedge 7\n10.1.0.1/16 x\n::/0\nbad\n10.0.0.0/8 new core\n' >"$routes"
out='10.1.2.3 10.1.0.0/16 edge 7
10.2.0.1 10.0.0.0/8 new core
2001:db8::1 ::/0'
err='addressTool: route 4: Invalid prefix - Non-zero after prefix length
addressTool: route 6: Invalid IpGenAddr
addressTool: line 2: no route
addressTool: line 4: Invalid IpAddr'
run 1 '10.1.2.3\n192.0.2.1\n10.2.0.1\n10.2\n2001:db8::1' --routes "$routes"
out='' err='addressTool: /nonexistent cannot be read'
run 1 '' --routes /nonexistent

# An answer comes before the next question is asked to its end.
coproc "$tool" --routes "$routes" 2>/dev/null
printf '10.1.2.3\n10' >&"${COPROC[1]}"
read -r -t 10 answer <&"${COPROC[0]}"
[ "${answer:-}" = '10.1.2.3 10.1.0.0/16 edge 7' ] || { echo "FAILED: no answer while the input is open"; failures=1; }
exec {COPROC[1]}>&-
wait "$COPROC_PID"
rm -f "$routes"

# A million lines, and one of sixty million characters, in constant memory: 64 MB hold the program, not the input.
# (A sanitizer's shadow of the memory alone is larger.)
limit=65536
! grep -q __asan_init "$tool" || limit=unlimited
limited=$( (ulimit -v $limit && { yes 10.1.2.3 | head -1000000; tr '\0' 1 </dev/zero | head -c 60000000; } |
  "$tool" --contains 10.0.0.0/8 2>/dev/null) | sort | uniq -c | tr -s ' ')
[ "${limited# }" = '1000000 10.1.2.3 yes' ] || { echo "FAILED: a million lines in 64 MB: $limited"; failures=1; }

# A line that is too long is named; an argument that is wrong, in one line, with status 2.
out='10.0.0.1 yes' err='addressTool: line 1: longer than 4096 characters'
run 1 "$(printf '%05000d' 1)\n10.0.0.1" --contains 10.0.0.1
out='' err='addressTool: --contains fe80::1/64: Invalid prefix - Non-zero after prefix length'
run 2 '' --contains fe80::1/64
err='addressTool: --subnets 129: no length from 0 to 128'
run 2 '' --subnets 129

# Wrong options: status 2, and a line that names one.
for words in -x --jsn "1.2.3.4 --table" - "--json --next" --subnets; do
  # shellcheck disable=SC2086
  said=$("$tool" $words 2>&1 </dev/null)
  if [ $? != 2 ] || [[ $said != "addressTool: "*"${words##* }"* ]] || [ "$(wc -l <<<"$said")" != 1 ]; then
    echo "FAILED: no line and status 2 for '$words': $said"
    failures=$((failures + 1))
  fi
done
"$tool" 1.2.3.4 >/dev/full 2>&1 && { echo "FAILED: status 0 though nothing could be written"; failures=1; }
"$tool" </ >/dev/null 2>&1 && { echo "FAILED: status 0 though nothing could be read"; failures=1; }

exit $((failures > 0))
