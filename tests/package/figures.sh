# Measures the installed service. tools/test-install sources this file, which needs the functions of
# failures.sh.
#
# The time of a line is the time at which the journal received it.
#
# shellcheck shell=bash disable=SC2016,SC2154

alarms=50  # Alarms that interrupt an announcement.
lying=50  # Files that stay in an input directory.
idle=900  # Seconds of an idle day that are measured.
lines_a_day=100  # The limit.

print_figures() {
  local unit
  for unit in "${units[@]}" vocastra-desk; do
    echo "exposure of $unit.service: $(exposure "$unit") (limit 1.5)"
  done
  start_player
  configure
  print_alarm_latency || verdict FAILED "alarm latency"
  print_idle_day || verdict FAILED "lines of an idle day"
}

# Writes doc/service.md from the output of all failures and figures, and of the last tools/restarts.
record() {
  if ! grep -q ': 150 restarts' build/restarts.log || ! grep -q '^2 passed' build/restarts.log; then
    verdict FAILED 'tools/restarts 200 was run, and passed'
    return
  fi
  { try_failures && print_figures; } > >(tee "$work/output")
  wait $!
  if ((failed > 0)); then return; fi
  awk '
    BEGIN {
      print "# The installed service in figures\n"
      print "Made by `tools/test-install record`. A limit is a goal of the project.\n"
    }
    /^exposure of / { exposure = exposure "| " $3 " | " $4 " |\n"; sub(":", "", exposure) }
    /^(alarm|idle): / { lines = lines "- " $0 "\n" }
    /^passed .*: told after / {
      sub(/^passed +/, "")
      split($0, part, /: told after |, fine | after the repair/)
      failures = failures "| " part[1] " | " part[2] " | " part[3] " |\n"
    }
    END {
      print "## Exposure\n\nAs `systemd-analyze security` rates it; the limit is 1.5.\n"
      print "| unit | exposure |\n|---|---|\n" exposure
      print "## Alarms, and the log of an idle day\n\n" lines
      print "## Failures\n\nThe seconds until `vocastra-status` tells the problem, from the command that"
      print "causes it or from the first effect in the log, and until it is fine after the repair."
      print "The limit of the first is 5 s.\n"
      print "| failure | told | fine again |\n|---|---|---|\n" failures
      print "## Restarts\n\nThe result of `tools/restarts 200`, with texts and then with tones instead of speech.\n\n```"
    }' "$work/output" >doc/service.md
  awk '/^seed [0-9]+: /,/^[0-9]+ pieces, /' build/restarts.log >>doc/service.md
  echo '```' >>doc/service.md
}

# --- Alarms ---------------------------------------------------------------------------------------

# Prints the times from the rename of an alarm to the player's line "playing NAME".
print_alarm_latency() {
  local i
  : >"$work/latencies"
  announce
  for ((i = 0; i < alarms; ++i)); do
    if ! within 60 is_announcing; then announce && within 60 is_announcing || return 1; fi
    one_alarm >>"$work/latencies" || return 1
  done
  sort -n "$work/latencies" | awk '{ all[NR] = $1 } END {
    printf "alarm: %d alarms, each in an announcement, from the rename to the player: " \
      "median %d ms, worst %d ms\n", NR, all[int((NR + 1) / 2)], all[NR] }'
}

# Announces a text that takes minutes.
announce() {
  inside sh -c 'cd /var/spool/vocastra/announcements &&
    for n in $(seq 60); do echo "The train to the coast, number $n, leaves from platform two."; done \
      >.new && mv .new "$1"' sh "long-$EPOCHREALTIME"
}

is_announcing() { grep -qs 'playing="[0-9]*_announcements' "/proc/$leader/root/run/vocastra/player"; }

# Prints milliseconds.
one_alarm() {
  local renamed
  renamed=$(inside sh -c 'cd /var/spool/vocastra/alarms && echo "Fire in hall two." >.new &&
    date +%s%6N && mv .new "alarm-$1"' sh "$EPOCHREALTIME")
  within 60 line_since "$renamed" vocastra-player 'playing [0-9]+_alarms' >"$work/played" || return 1
  echo $((($(cat "$work/played") - renamed) / 1000))
}

# --- An idle day ----------------------------------------------------------------------------------

# On an idle day, nothing is spoken, files stay in a local directory, and a site refuses each
# session. The first part of the day is measured, and the rest is computed:
# - A text that repeats is told once and counted after a minute, which is seen, after an hour, which
#   is added, and after a further day.
# - Texts that were new after the first minute are expected to go on as often.
print_idle_day() {
  local before since begin error
  before=$(messages_taken)
  inside install -d -o vocastra -g vocastra-say -m 2770 "$spool/lying" "$spool/last"
  configure 's#</tts-config>#<directory id="lying" priority="5" type="local" parser="text"\
    encoding="utf8" path="/var/spool/vocastra/lying" last-played-path="/var/spool/vocastra/last"/>&#'
  within 60 receiving lying || return 1
  sleep 3  # Files that arrive before the first scan would get other names.
  inside sh -c 'cd "$1" && for i in $(seq "$2"); do echo "$i." >.new && mv .new "m$i"; done' \
    sh "$spool/lying" "$lying"
  within 600 all_is_said $((before + lying)) || return 1

  since=$(inside date +%s%6N)
  sed 's#</tts-config>#<directory id="nowhere" priority="5" type="ftp" parser="text" encoding="utf8"\
    path="127.0.0.1:1/x" username="u" password="p" ftp-poll-rate="1"/>&#' \
    "/proc/$leader/root$etc/vocastra.conf" >"/proc/$leader/root$etc/new"
  inside mv "$etc/new" "$etc/vocastra.conf"
  within 60 line_since "$since" vocastra '127[.]0[.]0[.]1:1' >"$work/error" || return 1
  begin=$(inside stat -c %.6Z /run/vocastra/vocastra.conf | tr -d .)
  error=$(cat "$work/error")
  echo "idle: the first error of a site that refuses is in the journal $(((error - begin) / 1000)) ms" \
    "after the checked configuration is there (limit 1000 ms)," \
    "$(((error - since) / 1000)) ms after it was edited"
  sleep "$idle"
  inside journalctl --no-pager --quiet --output=short-unix --unit='vocastra*' \
    --since="@$((since / 1000000))" >"$work/lines"
  check "$(inside ls "$spool/lying" | wc -l) files wait in the directory" within 1 all_is_said $((before + lying))
  sed 's/^/    | /' "$work/lines"
  awk -v since="$since" -v idle="$idle" '
    { sub(/[.]/, "", $1); time = ($1 - since) / 1000000; $1 = "" }
    / \([0-9]+ more in [0-9]+ seconds\)$/ {
      ++counts
      sub(/ \([0-9]+ more in [0-9]+ seconds\)$/, "")
      repeating[$0]
      next
    }
    time < 60 { ++early; next }
    { ++late }
    END {
      hourly = length(repeating)
      day = early + counts + hourly + late * 86400 / idle
      printf "idle: %d lines of %d files and such a site in %d s: %d new ones in the first minute, %d " \
        "counts, %d new ones later\nidle: %d lines a day = %d + %d + %d counts after an hour + %d * %d\n",
        early + counts + late, '"$lying"', idle, early, counts, late, day, early, counts, hourly, late,
        86400 / idle
      print int(day) >"'"$work/day"'"
    }' "$work/lines"
  check "at most $lines_a_day lines a day" test "$(cat "$work/day")" -le "$lines_a_day"
  configure
}

messages_taken() { status_value 'print(status["counters"].get("messages", 0))'; }

# all_is_said COUNT: COUNT messages were taken since the start, and the player has played all of
# them.
all_is_said() {
  local states
  (($(messages_taken) >= $1)) &&
    states=$(status_value 'print(*{message["state"] for message in status["messages"]})') &&
    [[ ! $states =~ waiting|speaking|said ]]
}

# status_value PROGRAM: runs a Python program with the JSON status in "status".
status_value() {
  { inside vocastra-status --json || true; } |
    /usr/bin/python3 -c "import json, sys; status = json.load(sys.stdin); $1"
}
