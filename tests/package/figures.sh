# Figures of the installed service; sourced by tools/test-install, with the functions of failures.sh.
#
# shellcheck shell=bash disable=SC2016,SC2154

quiet=150   # Seconds for which the log's lines are counted.
alarms=50   # Alarms that interrupt an announcement.

# Lines of the log while nothing is spoken, 50 files lie in one directory, and a remote directory
# fails. The first minute shows each line once, and is left out.
print_idle_lines() {
  local since lines
  inside install -d -o vocastra -g vocastra-say -m 2770 /var/spool/vocastra/lying
  sed 's#^</tts-config>#<directory id="lying" priority="5" type="local" parser="text" encoding="utf8"\
    path="/var/spool/vocastra/lying" auto-delete="0"/>\
    <directory id="nowhere" priority="5" type="ftp" parser="text" encoding="utf8" path="127.0.0.1:1/x"\
    username="u" password="p" ftp-poll-rate="1"/>&#' "$work/config" >"/proc/$leader/root$etc/new"
  inside mv "$etc/new" "$etc/vocastra.conf"
  within 60 is_told remote:nowhere
  inside sh -c 'cd "$1" && for i in $(seq 50); do echo "$i." >.new && mv .new "m$i"; done' sh "$spool/lying"
  within 300 has_said 50
  echo "idle: $(files_lying) files lie, and $(cat "$work/told")"
  sleep 60
  since=$(inside date +%s)
  sleep "$quiet"
  journal_since "$since" >"$work/lines"
  lines=$(wc -l <"$work/lines")
  echo "idle: $lines lines of the log in $quiet seconds after the first minute, or" \
    "$((lines * 86400 / quiet)) a day"
  sed 's/^/    | /' "$work/lines"
  configure
}

journal_since() { inside journalctl --no-pager --quiet --output=cat --unit=vocastra --since="@$1"; }

files_lying() { inside sh -c 'ls /var/spool/vocastra/lying | wc -l'; }

has_said() {
  local text
  text=$(inside vocastra-status --metrics) || true
  ! inside vocastra-status --json | grep -qE '"state":"(waiting|speaking)"' && [[ -n $text ]] &&
    (($(files_lying) == $1))
}

# Milliseconds from the rename of an alarm to the player's line "playing NAME" in the journal.
print_alarm_latency() {
  local i
  : >"$work/latencies"
  for ((i = 0; i < alarms; ++i)); do
    within 60 is_announcing || inside sh -c 'cd /var/spool/vocastra/announcements &&
      for n in $(seq 60); do echo "The train to the coast, number $n, leaves from platform two."; done \
        >.new && mv .new "$1"' sh "long-$EPOCHREALTIME"
    within 60 is_announcing || return 1
    one_alarm >>"$work/latencies" || return 1
  done
  sort -n "$work/latencies" | awk '{ all[NR] = $1 } END {
    printf "alarm: %d alarms, from the rename to the player: median %d ms, worst %d ms\n", NR,
      all[int((NR + 1) / 2)], all[NR] }'
}

is_announcing() { grep -qs 'playing="[0-9]*_announcements' "/proc/$leader/root/run/vocastra/player"; }

one_alarm() {
  local renamed
  renamed=$(inside sh -c 'cd /var/spool/vocastra/alarms && echo "Fire $1." >.new && date +%s%6N &&
    mv .new "alarm-$1"' sh "$EPOCHREALTIME")
  within 60 alarm_plays "$renamed" >"$work/played" || return 1
  echo $((($(head -n 1 "$work/played") - renamed) / 1000))
  within 60 is_announcing
}

# alarm_plays SINCE: prints the time of the line, in microseconds.
alarm_plays() {
  inside journalctl --no-pager --quiet --unit=vocastra-player --since="@$((${1} / 1000000))" \
    --output=short-unix | awk -v since="$1" '/playing [0-9]+_alarms/ {
      split($1, part, "."); time = part[1] part[2]
      if (time + 0 > since + 0) { print time; found = 1; exit } } END { exit !found }'
}

print_figures() {
  start_player
  configure
  print_alarm_latency
  print_idle_lines
}
