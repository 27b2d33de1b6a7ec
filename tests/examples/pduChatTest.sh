#!/usr/bin/env bash
# Runs pduChat as its users would.  Usage: pduChatTest.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
source "$(dirname "$0")/support.sh"
two_namespaces
chat=$programs/pduChat
cell() {  # cell FILE COLUMN ROW: of the table of counters
  awk -v column="$2" -v row="$3" '
    $1 == "Pam" { at = 0; for (i = 1; i <= NF; ++i) if ($i == column) at = i }
    $1 == row && at { print $at }' "$folder/$1"
}

for words in "" "server" "peer 192.0.2.1 7000" "server 192.0.2.1" "server 192.0.2.1 0" "server host 7000" \
  "client --limit 3 192.0.2.1 7000" "client --blast 19 192.0.2.1 7000" "client --blast 65536 192.0.2.1 7000" \
  "server --name ann 192.0.2.1 7000" "client --name thirteen-oct 1 7000" "client --queue 0 192.0.2.1 7000" \
  "client --seconds 192.0.2.1 7000" "client --loud 1 192.0.2.1 7000" "server 192.0.2.1 7000 8"; do
  # shellcheck disable=SC2086
  refused 2 "pduChat: " "$chat" $words
done
refused 1 "pduChat: socket: No such file or directory" "$chat" server --netns ns-none 192.0.2.1 7000
refused 1 "pduChat: TcpClientSm::localAddr of another family" "$chat" client --from 2001:db8::2 192.0.2.1 7000

for address in 192.0.2.1 2001:db8::1; do
  # A client that is there before the server, and waits.
  mkfifo "$folder/ann.in"
  "$chat" client --netns $blue --name ann $address 7000 <"$folder/ann.in" >"$folder/ann" 2>&1 &
  ann=$!
  exec 9>"$folder/ann.in"
  await "$folder/ann" "^connect: Connection refused; trying again$"
  "$chat" server --netns $red --read-ahead $address 7000 >"$folder/server" 2>&1 9>&- &
  server=$!
  await "$folder/ann" "^connected to $address port 7000$"

  # Lines from a pipe and from a file, the last without an end, and nothing that a terminal would obey.
  printf 'hello\n\033[2Jall\nyou' | "$chat" client --netns $blue --name bob $address 7000 >"$folder/bob"
  expect "bob's status" [ $? = 0 ]
  seq 5000 >"$folder/lines"
  "$chat" client --netns $blue --name eve --queue 1 $address 7000 <"$folder/lines" >"$folder/eve"
  await "$folder/ann" "^<eve> 5000$"
  expect "what bob said" [ "$(grep '^<bob>' "$folder/ann")" = "$(printf '<bob> hello\n<bob> ?[2Jall\n<bob> you')" ]
  expect "all that eve said" cmp -s <(sed -n 's/^<eve> //p' "$folder/ann") "$folder/lines"
  echo "bye" >&9
  exec 9>&-
  wait $ann
  expect "ann's status" [ $? = 0 ]
  await "$folder/server" "^.* port [0-9]+ went: Connection closed by peer$"

  # As many as go: rates on both ends, and what was sent has been received.
  blasted=0
  if [ $address = 2001:db8::1 ]; then
    "$chat" client --netns $blue --blast 64 --seconds 2 $address 7000 >"$folder/blast"
    expect "the blast's status" [ $? = 0 ]
    expect "the rate of sending" grep -Eq "^sent +[0-9]+ PDUs/s +[0-9.]+ MB/s$" "$folder/blast"
    await "$folder/server" "^received +[0-9]+ PDUs/s +[0-9.]+ MB/s$"
    blasted=$(cell blast txPkts PDUs)
  fi
  interrupt $server
  expect "PDUs that were received" [ "$(cell server rxPkts PDUs)" = $((blasted + 5004)) ]
  expect "no error" [ "$(cell server rxErrors PDUs)" = 0 ]
  expect "connections" [ "$(cell server accepted server)" = $((blasted > 0 ? 4 : 3)) ]
  rm "$folder/ann.in"
done

# One at a time: the other waits. Ctrl-C ends a client too; one whose server goes tries again.
"$chat" server --netns $red --limit 1 192.0.2.1 7000 >"$folder/server" 2>&1 &
server=$!
await "$folder/server" "^serving"
mkfifo "$folder/silence"
exec 9<>"$folder/silence"
for name in ann bob; do
  "$chat" client --netns $blue --name $name --from 192.0.2.2 192.0.2.1 7000 <&9 >"$folder/$name" 2>&1 &
  [ $name = ann ] && ann=$! || bob=$!
  await "$folder/$name" "^connected"
done
expect "one client" [ "$(grep -c came "$folder/server")" = 1 ]
interrupt $ann
await "$folder/server" "came, 1 here$"
await "$folder/server" came 2
kill -INT $server
await "$folder/bob" "^connection lost: "
await "$folder/bob" "trying again$"
interrupt $bob

exit $((failures > 0))
