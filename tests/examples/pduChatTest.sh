#!/usr/bin/env bash
# Runs pduChat as its users would.  Usage: pduChatTest.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
chat=$1/pduChat
failures=0
folder=$(mktemp -d)
red=ns-t$$-red blue=ns-t$$-blue
trap 'kill $(jobs -p) 2>/dev/null; ip netns del $red 2>/dev/null; ip netns del $blue 2>/dev/null; rm -rf "$folder"' EXIT

expect() {  # expect WHAT COMMAND...
  local what=$1
  shift
  "$@" || { echo "FAILED: $what"; failures=$((failures + 1)); }
}
status_of() {
  "$@" >"$folder/out" 2>&1 </dev/null
  echo $?
}
await() {  # await FILE PATTERN: until the file has such a line
  for _ in $(seq 200); do
    grep -Eq "$2" "$folder/$1" 2>/dev/null && return
    sleep 0.05
  done
  echo "FAILED: no line '$2' in $1:"
  tail -n 5 "$folder/$1"
  failures=$((failures + 1))
}
cell() {  # cell FILE COLUMN ROW: of the table of counters
  awk -v column="$2" -v row="$3" '
    $1 == "Pam" { for (i = 1; i <= NF; ++i) if ($i == column) at = i }
    $1 == row && at { print $at }' "$folder/$1"
}

if ! ip netns add $red 2>/dev/null || ! ip netns add $blue; then
  [ -z "${CI:-}" ] || { echo "FAILED: namespaces are not permitted"; exit 1; }
  echo "SKIPPED: namespaces are not permitted"
  exit 77
fi
ip link add v0 netns $red type veth peer name v0 netns $blue
ip -n $red link set v0 up && ip -n $red addr add 10.44.0.1/24 dev v0
ip -n $blue link set v0 up && ip -n $blue addr add 10.44.0.2/24 dev v0
ip -n $red addr add fd44::1/64 dev v0 nodad && ip -n $blue addr add fd44::2/64 dev v0 nodad

# Wrong words: the usage, and status 2.
for words in "" "server" "peer 10.44.0.1 7000" "server 10.44.0.1" "server 10.44.0.1 0" "server host 7000" \
  "client --limit 3 10.44.0.1 7000" "client --blast 19 10.44.0.1 7000" "client --blast 65536 10.44.0.1 7000" \
  "server --name ann 10.44.0.1 7000" "client --name thirteen-oct 1 7000" "client --queue 0 10.44.0.1 7000" \
  "client --seconds 10.44.0.1 7000" "client --loud 1 10.44.0.1 7000" "server 10.44.0.1 7000 8"; do
  # shellcheck disable=SC2086
  expect "status 2 for '$words'" [ "$(status_of "$chat" $words)" = 2 ]
  expect "usage for '$words'" grep -q "^usage: pduChat server" "$folder/out"
done
expect "status 1" [ "$(status_of "$chat" server --netns ns-none 10.44.0.1 7000)" = 1 ]
expect "a reason" grep -qx "pduChat: socket: No such file or directory" "$folder/out"
expect "status 1" [ "$(status_of "$chat" client --from fd44::2 10.44.0.1 7000)" = 1 ]
expect "a reason" grep -q "^pduChat: TcpClientSm::localAddr of another family" "$folder/out"

for address in 10.44.0.1 fd44::1; do
  # A client that is there before the server, and waits.
  mkfifo "$folder/ann.in"
  "$chat" client --netns $blue --name ann $address 7000 <"$folder/ann.in" >"$folder/ann" 2>&1 &
  ann=$!
  exec 9>"$folder/ann.in"
  await ann "^connect: Connection refused; trying again$"
  "$chat" server --netns $red --read-ahead $address 7000 >"$folder/server" 2>&1 9>&- &
  server=$!
  await ann "^connected to $address port 7000$"

  # Lines from a pipe and from a file, the last without an end, and nothing that a terminal would obey.
  printf 'hello\n\033[2Jall\nyou' | "$chat" client --netns $blue --name bob $address 7000 >"$folder/bob"
  expect "bob's status" [ $? = 0 ]
  seq 5000 >"$folder/lines"
  "$chat" client --netns $blue --name eve --queue 1 $address 7000 <"$folder/lines" >"$folder/eve"
  await ann "^<eve> 5000$"
  expect "what bob said" [ "$(grep '^<bob>' "$folder/ann")" = "$(printf '<bob> hello\n<bob> ?[2Jall\n<bob> you')" ]
  expect "all that eve said" cmp -s <(sed -n 's/^<eve> //p' "$folder/ann") "$folder/lines"
  echo "bye" >&9
  exec 9>&-
  wait $ann
  expect "ann's status" [ $? = 0 ]
  await server "^.* port [0-9]+ went: Connection closed by peer$"

  # As many as go: rates on both ends, and what was sent has been received.
  blasted=0
  if [ $address = fd44::1 ]; then
    "$chat" client --netns $blue --blast 64 --seconds 2 $address 7000 >"$folder/blast"
    expect "the blast's status" [ $? = 0 ]
    expect "the rate of sending" grep -Eq "^sent +[0-9]+ PDUs/s +[0-9.]+ MB/s$" "$folder/blast"
    await server "^received +[0-9]+ PDUs/s +[0-9.]+ MB/s$"
    blasted=$(cell blast txPkts PDUs)
  fi
  kill -INT $server
  wait $server
  expect "the server's status" [ $? = 0 ]
  expect "PDUs that were received" [ "$(cell server rxPkts PDUs)" = $((blasted + 5004)) ]
  expect "no error" [ "$(cell server rxErrors PDUs)" = 0 ]
  expect "connections" [ "$(cell server accepted server)" = $((blasted > 0 ? 4 : 3)) ]
  rm "$folder/ann.in"
done

# One at a time: the other waits. Ctrl-C ends a client too; one whose server goes tries again.
"$chat" server --netns $red --limit 1 10.44.0.1 7000 >"$folder/server" 2>&1 &
server=$!
await server "^serving"
mkfifo "$folder/silence"
exec 9<>"$folder/silence"
for name in ann bob; do
  "$chat" client --netns $blue --name $name --from 10.44.0.2 10.44.0.1 7000 <&9 >"$folder/$name" 2>&1 &
  [ $name = ann ] && ann=$! || bob=$!
  await $name "^connected"
done
expect "one client" [ "$(grep -c came "$folder/server")" = 1 ]
kill -INT $ann
wait $ann
expect "status 0 after Ctrl-C" [ $? = 0 ]
await server "came, 1 here$"
for _ in $(seq 100); do [ "$(grep -c came "$folder/server")" = 2 ] && break; sleep 0.05; done
expect "the other client" [ "$(grep -c came "$folder/server")" = 2 ]
kill -INT $server
await bob "^connection lost: "
await bob "trying again$"
kill -INT $bob
wait $bob
expect "status 0 after Ctrl-C" [ $? = 0 ]

exit $((failures > 0))
