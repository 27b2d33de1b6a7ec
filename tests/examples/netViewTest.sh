#!/usr/bin/env bash
# Runs netView as a user would.  Usage: netViewTest.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
source "$(dirname "$0")/support.sh"
two_namespaces
late=ns-t$$-late
trap 'ip netns del $late 2>/dev/null; namespaces_removed' EXIT

for words in --loud --netns "--table x" "--to 192.0.2.1/24"; do
  # shellcheck disable=SC2086
  refused 2 "netView: " "$programs/netView" $words
done
refused 1 "netView: no such namespace: No such file or directory (ns-none)" \
  "$programs/netView" --netns ns-none --once

# What ip -j has, in one document; lifetimes run, and the order is another.
ip -n "$red" route add 198.51.100.0/24 via 192.0.2.2
"$programs/netView" --netns "$red" --once --json >"$folder/view" || expect "status 0" false
python3 - "$red" "$folder/view" <<'END' >"$output" 2>&1
import json, subprocess, sys

def ip(words):
    return json.loads(subprocess.run(["ip", "-n", sys.argv[1], "-j"] + words.split(), stdout=subprocess.PIPE).stdout)

def rows(members):
    return sorted(json.dumps(member, sort_keys=True) for member in members)

with open(sys.argv[2], encoding="utf-8") as file:
    view = json.load(file)
addresses = [dict(address, ifindex=link["ifindex"], ifname=link["ifname"])
             for link in ip("addr") for address in link["addr_info"]]
wanted = {"links": ip("link"), "addresses": addresses, "routes": ip("route show table all"), "neighbors": ip("neigh")}
for kind, members in wanted.items():
    assert rows(members) == rows(view[kind]), (kind, members, view[kind])
END
expect "the document is that of ip -j" [ $? = 0 ]

# It waits for its namespace, follows it and outlives it.
"$programs/netView" --netns "$late" --links >"$output" 2>&1 &
sleep 0.1
ip netns add "$late"
await "$output" "ifname lo"
ip -n "$late" link set lo up mtu 1500
await "$output" "^changed link lo: .*mtu 65536.* -> .*mtu 1500"
ip netns del "$late"
await "$output" "namespace gone"
interrupt
exit $((failures > 0))
