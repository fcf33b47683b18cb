# Breaks the installed service, and checks the problems that its users see. tools/test-install
# sources this file.
#
# Each row breaks one thing in the booted system, and waits until vocastra-status fails and names
# the problem with a sentence and a remedy. Then it repairs only that thing, and waits until
# vocastra-status succeeds. It prints the seconds of both waits: from the start of the breaking
# command, or from its first effect in the journal if a row names that, and from the end of the
# repairing command.
#
# A row is expanded when it runs, and tools/test-install sets some variables:
# shellcheck shell=bash disable=SC2016,SC2034,SC2119,SC2120,SC2154

spool=/var/spool/vocastra
out=/run/vocastra/out
etc=/etc/vocastra
translator=/usr/libexec/vocastra/translators/espeak-ng
voices=/usr/lib/x86_64-linux-gnu/espeak-ng-data

# A row has a name, the problem's id, a breaking and a repairing command, and maybe the line of the
# station that is the first effect.
all_failures() {
  failure 'translator missing' translator-missing \
    'root mv $translator $translator.away' 'root mv $translator.away $translator'
  failure 'translator failing' translator-failing \
    'root mv $voices $voices.away; message' 'root mv $voices.away $voices'
  check 'a configuration with another voice is applied' use_voice
  failure 'voice gone' translator-failing \
    'root mv $voices/lang/gmw/de $voices/away; message' 'root mv $voices/away $voices/lang/gmw/de'
  # The station refuses an edited configuration with a missing voice.
  failure 'unknown voice' configuration-refused \
    'configure "s/id=.announcements./& conv-opts=\"voice=missing\"/"' configure
  # It hangs when the message comes.
  replace_translator 'sleep 1000'
  failure 'translator hanging' translator-hanging message restore_translator

  failure 'output directory gone' output-gone \
    'root rm -r $out' 'root install -d -o vocastra -g vocastra -m 700 $out'
  failure 'output directory read-only' output-read-only \
    'root chmod 500 $out' 'root chmod 700 $out'
  failure 'disk of the output directory full' output-full \
    'fill root /run' 'root rm /run/fill'
  failure '/tmp full' tmp-full \
    'fill in_service /tmp' 'in_service rm /tmp/fill'

  failure 'no player' no-player \
    'root systemctl stop vocastra-player' 'root systemctl start vocastra-player'
  failure 'player stopped' player-stopped \
    'send STOP "$(player)"' 'send CONT "$(player)"'
  failure 'no sound device' no-sound-device \
    'play_to "--device hw:7"' 'play_to --null'

  failure 'input directory missing' input-missing:announcements \
    'root mv $spool/announcements $spool/away' 'root mv $spool/away $spool/announcements'
  failure 'input directory unreadable' input-unreadable:announcements \
    'root chmod 0 $spool/announcements' 'root chmod 2770 $spool/announcements'

  failure 'message unreadable' unreadable:announcements/secret \
    'message secret 600' 'root chmod 644 $spool/announcements/secret'
  failure 'message cannot be removed' not-removed:announcements/sticky \
    'root chown root $spool/announcements; root chmod 3777 $spool/announcements; message sticky' \
    'root chown vocastra $spool/announcements; root rm $spool/announcements/sticky'
  root chmod 2770 $spool/announcements
  root chgrp vocastra-say $spool/announcements
  failure 'message with a used name and text' not-queued:announcements/twice message_twice \
    'root rm $spool/announcements/twice; root mv $translator.away $translator'

  failure 'remote host unreachable' remote:ftp 'loopback down' 'loopback up' \
    'no updates: no answer'
  failure 'login refused' remote:ftps \
    'configure "/id=.ftps./s/ password=./&x/"' configure 'no updates: 530'
  failure 'certificate refused' remote:ftps \
    'configure "/id=.ftps./s/ca=[^,]*,//"' configure 'no updates: SSL'
  failure 'host key refused' remote:sftp \
    'configure "/id=.sftp./s#known-hosts=[^,]*#known-hosts=/etc/hostname#"' configure \
    'no updates: the server.s host key'
  failure 'helper dead' helper-dead:ftp \
    'kill_all "^/usr/libexec/vocastra/helpers/ftp "' 'root systemctl restart vocastra'

  failure 'configuration malformed' configuration-refused \
    'configure "s/<tts-config/<<&/"' configure
  failure 'configuration missing' configuration-missing \
    'root rm $etc/vocastra.conf' configure
  failure 'glossary malformed' glossary-refused \
    'root sed -i.good "s/<glossary>/<<&/" $etc/glossary.xml' \
    'root mv $etc/glossary.xml.good $etc/glossary.xml'
  failure 'glossary missing' glossary-missing \
    'root mv $etc/glossary.xml $etc/away' 'root mv $etc/away $etc/glossary.xml'

  # The station restarts a daemon that hangs or has ended.
  failure 'daemon hung' daemon-hung 'send STOP "$(daemon)"' :
  # Some seconds pass before the third start of a daemon that has died twice.
  check 'the daemon has died twice' dies_twice
  failure 'daemon dead' 'no-daemon|daemon-dead' daemon_dies :
  failure 'lock held by another process' "locked:$out" \
    'root systemd-run --quiet --unit=holder flock $out sleep 1000' 'root systemctl stop holder'
}

# --- Rows -----------------------------------------------------------------------------------------

# failure NAME ID BREAK REPAIR [EFFECT]: id and effect are extended regular expressions.
failure() {
  local name=$1 told fine effect
  if ! within 60 is_fine; then
    verdict FAILED "$name: vocastra-status fails before it"
    sed 's/^/    | /' "$work/last"
    return
  fi
  : >"$work/told"
  : >"$work/last"
  effect=${EPOCHREALTIME/./}
  if break_and_wait "$2" "$3" >"$work/log" 2>&1 </dev/null; then
    if [[ -n ${5:-} ]]; then seconds=$(seconds_since_line "$effect" "$5"); fi
    told="told after $seconds s"
    if ((${seconds%.*} >= 5)); then slow+=("$name"); fi
  fi
  eval "$4" >>"$work/log" 2>&1 </dev/null || echo "the repair has failed" >>"$work/log"
  if timed within 90 is_fine; then fine="fine $seconds s after the repair"; fi
  if [[ -n ${told:-} && -n ${fine:-} ]]; then
    verdict passed "$name: $told, $fine"
    sed 's/^/        /' "$work/told"
  else
    verdict FAILED "$name: ${told:-"not told"}, ${fine:-"not fine again"}"
    tail -n 25 "$work/log" "$work/last" | sed 's/^/    | /'
  fi
}

# seconds_since_line TIME PATTERN: prints the seconds since the station's first such line after a time
# in microseconds.
seconds_since_line() {
  local now=${EPOCHREALTIME/./} line tenths
  line=$(line_since "$1" vocastra "$2")
  tenths=$(((now - line) / 100000))
  echo $((tenths / 10)).$((tenths % 10))
}

# line_since TIME UNIT PATTERN: prints the time of the first such line, in microseconds since 1970.
line_since() {
  inside journalctl --no-pager --quiet --unit="$2" --since="@$(($1 / 1000000))" --output=short-unix |
    awk -v since="$1" -v pattern="$3" '{ split($1, part, "."); time = part[1] part[2] }
      time + 0 > since + 0 && $0 ~ pattern && !found { print time; found = 1 } END { exit !found }'
}

is_fine() { status_is_fine >"$work/last" 2>&1; }

break_and_wait() { timed breaks "$@"; }

breaks() {
  eval "$2"
  within 60 problem_is_shown "$1"
}

# problem_is_shown ID: vocastra-status fails, and shows the problem with a sentence and a remedy.
problem_is_shown() {
  local text
  ! text=$(inside runuser -u stranger -- vocastra-status --json) || return 1
  grep -oE "\"id\":\"($1)\",\"sentence\":\"([^\"\\]|\\\\.)+\",\"remedy\":\"([^\"\\]|\\\\.)+\"" \
    <<<"$text" >"$work/told" || { echo "$text" >"$work/last"; return 1; }
}

# --- Ways to break ----------------------------------------------------------------------------------

root() { inside "$@"; }

in_service() { inside nsenter --mount --target "$(property MainPID)" "$@"; }

# message [NAME [MODE]]: hands a message over. The name is a new one by default, and the text is
# always the same.
message() {
  inside sh -c 'cd /var/spool/vocastra/announcements && echo "A message." >.new && chmod "$2" .new &&
    mv .new "$1"' sh "${1:-message-$EPOCHREALTIME}" "${2:-644}"
}

# Hands a message over, and again while the daemon speaks it and still knows its name.
message_twice() {
  inside sh -c 'mv "$1" "$1.away" &&
    printf "%s\n" "#!/bin/sh" "sleep 2" "exec $1.away \"\$@\"" >"$1" && chmod 755 "$1" &&
    cd /var/spool/vocastra/announcements && echo "A message." >.new && cp .new .again &&
    mv .new twice && while [ -e twice ]; do sleep 0.1; done && mv .again twice' sh $translator
}

# configure [SED-SCRIPT]: installs the test's configuration, changed by the script.
configure() {
  sed "${1:-}" "$work/config" >"/proc/$leader/root$etc/new"
  inside mv $etc/new $etc/vocastra.conf
}

use_voice() {
  configure 's/id=.announcements./& conv-opts="voice=de"/'
  within 60 inside grep -q voice=de /run/vocastra/vocastra.conf
}

replace_translator() {
  inside sh -c 'mv "$1" "$1.away" && printf "%s\n" "#!/bin/sh" "exec $2" >"$1" && chmod 755 "$1"' \
    sh $translator "$1"
}

restore_translator() {
  inside mv $translator.away $translator
  kill_all '^sleep 1000'
}

# kill_all PATTERN: kills the processes whose command line has it. A process may end with another
# one.
kill_all() {
  local pid
  for pid in $(processes "$1"); do send KILL "$pid" || true; done
}

processes() {
  inside sh -c 'for directory in /proc/[0-9]*; do
    ! tr "\0" " " 2>/dev/null <"$directory/cmdline" | grep -qE "$1" || echo "${directory#/proc/}"
  done' sh "$1"
}

# Fails instead of printing 0, which would mean every process.
player() { inside systemctl show --property=MainPID --value vocastra-player | grep -v '^0$'; }

play_to() {
  inside sh -c 'echo "VOCASTRA_PLAYER_OPTIONS=\"--verbose $1\"" >/etc/default/vocastra-player &&
    systemctl restart vocastra-player' sh "$1"
}

# fill root|in_service DIRECTORY: makes its file system smaller and fills it. systemd needs 16 MiB for
# a reload, also after the repair.
fill() {
  local used
  used=$(inside df --output=used "$2" | tail -n 1)
  inside mount -o "remount,size=$((used + 24576))k" "$2"
  "$1" sh -c 'head -c 32M /dev/zero >"$1/fill"' sh "$2"
}

# Kills the daemon after its start.
daemon_dies() {
  within 60 new_daemon none && within 60 status_shows announcements || return 1
  # The station reads the status once a second. Without a status, it reports another problem.
  sleep 2
  send KILL "$(daemon)"
}

dies_twice() { daemon_dies && daemon_dies; }

loopback() { nsenter --target "$leader" --net ip link set lo "$1"; }

# --- The whole table ------------------------------------------------------------------------------

# Lets the player discard the sound at the speed of playing.
start_player() {
  inside sh -c 'directory=/etc/systemd/system/vocastra-player.service.d
    mkdir -p "$directory" && printf "%s\n" "[Unit]" "ConditionPathExistsGlob=" >"$directory/test.conf"
    systemctl daemon-reload' &&
    play_to --null && options '' '' && inside systemctl restart vocastra
}

try_failures() {
  slow=()
  start_player
  configure
  all_failures
  check "each failure is told within 5 s (later: ${slow[*]:-none})" test ${#slow[@]} -eq 0
}
