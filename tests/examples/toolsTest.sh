#!/usr/bin/env bash
# What all tools have in common, and wirlTop.  Usage: toolsTest.sh FOLDER-OF-THE-PROGRAMS
set -uo pipefail
source "$(dirname "$0")/support.sh"
export WIRL_STATISTICS=$folder/statistics

# Help and version come on standard output, whatever else is on the command line; the man page and the completion know
# every option of --help.
for tool in addressTool frameReport frameTap netView pduChat pingResponder udpEcho wirlTop; do
  [ -x "$programs/$tool" ] || continue
  for words in --help -h "--none --help"; do
    # shellcheck disable=SC2086
    "$programs/$tool" $words >"$output" 2>"$folder/error" || expect "status 0 of $tool $words" false
    expect "usage of $tool" grep -q "^usage: $tool " "$output"
    expect "nothing on standard error of $tool $words" [ ! -s "$folder/error" ]
  done
  expect "100 columns" [ "$(wc -L <"$output")" -le 100 ]
  expect "the version of $tool" grep -Eqx "$tool \(libWirl\) [0-9.]+" <("$programs/$tool" --version)
  ! "$programs/$tool" --help >/dev/full 2>&1 || expect "status of $tool where nothing can be written" false
  "$programs/$tool" --man >"$folder/$tool.1"
  expect "the man page of $tool" [ -z "$(man --warnings -E UTF-8 -l -Tutf8 -Z "$folder/$tool.1" 2>&1 >/dev/null)" ]
  man -l "$folder/$tool.1" 2>/dev/null | col -b >"$folder/text"
  "$programs/$tool" --completion >"$folder/completion"
  for option in $(grep -Eo '^  (-h, )?--[a-z-]+' "$output" | grep -o -- '--.*'); do
    expect "$option in the man page" grep -q -- "$option" "$folder/text"
    offered=$(bash -c "source '$folder/completion'; COMP_WORDS=($tool ${option:0:4}) COMP_CWORD=1; _$tool; echo \${COMPREPLY[*]}")
    expect "$option offered by the completion" grep -q -- "$option" <<<"$offered"
  done
done

# wirlTop, of nobody, of two, and of one that is gone.
top=$programs/wirlTop
refused 1 "wirlTop: no process answers in $folder/statistics" "$top" --once
refused 2 "wirlTop: --once excludes --json" "$top" --once --json
start echoing "$programs/udpEcho" --statistics 127.0.0.1 7001
first=$!
start echoing "$programs/udpEcho" --statistics 127.0.0.1 7002
second=$!
printf hello | socat -t 0.2 - UDP4:127.0.0.1:7002 >"$output"
expect "two tables" [ "$("$top" --once | grep -c '^udpEcho (process')" = 2 ]
refused 1 "wirlTop: 2 processes serve; name one" "$top" --prometheus
/usr/bin/python3 - "$("$top" --json $second)" "$("$top" --prometheus $second)" $second <<'END' >"$output" 2>&1 || expect "the numbers" false
import json, sys
from prometheus_client.parser import text_string_to_metric_families as families
document, metrics, process = json.loads(sys.argv[1]), sys.argv[2], int(sys.argv[3])
[thread] = document["threads"]
[pam] = thread["pams"]
assert document["process"] == process and pam["name"] == "udpEcho" and pam["rxPkts"] == pam["txPkts"] == 1, document
assert thread["loop"]["readable"] >= 1, document
samples = {s.name: s for family in families(metrics) for s in family.samples if "pam" in s.labels}
assert samples["wirl_pam_rx_packets_total"].value == 1, samples
assert samples["wirl_pam_rx_packets_total"].labels["class"] == "Wirl::UdpPam", samples
END
kill -KILL $second
wait $second 2>/dev/null
expect "one that is left" [ "$("$top" --once | grep -c '^udpEcho (process')" = 1 ]
expect "what curl sees" grep -q '^udpEcho (process' <(curl -s --unix-socket "$folder/statistics/udpEcho.$first" http://localhost/)

# On a terminal: a screen of its own, which goes on Ctrl-C, and the terminal's settings are those of before.
cat >"$folder/terminal" <<END
stty -a >$folder/before; timeout --foreground -s INT 1.5 $top; echo "status \$?"; stty -a >$folder/after
END
script -qec "bash $folder/terminal" "$output" >/dev/null </dev/null
expect "the row" grep -q "udpEcho" "$output"
expect "the screen and the cursor given back" grep -aq $'\033\[?25h\033\[?1049l' "$output"
expect "the terminal as it was" cmp -s "$folder/before" "$folder/after"
interrupt $first
expect "no socket left" [ ! -e "$folder/statistics/udpEcho.$first" ]

exit $((failures > 0))
