# shellcheck shell=sh
# What the helpers for remote input directories share. It is sourced by them, never run.
#
# A helper keeps a local directory like a remote one and proves that it is alive. It
#   - passes on names of the form [A-Za-z0-9_][A-Za-z0-9._+=@-]* only, since the daemon hands
#     names to the shell; another name that lasts for two listings is reported, once;
#   - fetches a file when two listings in a row agree on its size and time (it is not still
#     being written) and it was not delivered with that size and time before; then to a hidden
#     name, and renames it if its size is right and the remote file is still the same one;
#     the oldest file comes first, and none of more than 1 MiB comes at all;
#   - remembers what it delivered: the daemon removes a file that it takes, and fetching it
#     again would have it spoken again. The memory ends with the helper; the files of a first
#     mirror count as old in the daemon and are not spoken;
#   - removes a local file, and forgets it, when two listings in a row do not show it;
#   - with auto-delete, removes a remote file whose delivered copy is gone (the daemon took it)
#     unless it has changed meanwhile;
#   - rewrites ".helper.timestamp" by a rename after each listing that succeeded, and between
#     two transfers, but not before the first full mirror is complete;
#   - never ends because of the network: it reports a trouble in one line on standard error,
#     once, tries again for ever, and reports when the trouble is over;
#   - ends within moments on SIGTERM or SIGHUP, even while the network blocks it, and when the
#     process that started it is gone. SIGINT is ignored: a terminal's Ctrl-C reaches the whole
#     process group, and the daemon still has to send its SIGTERM.
#
# Times have a resolution of one second: a file that is rewritten with the same size within the
# second of its delivery is taken for unchanged.
#
# A helper defines these functions, calls begin and then mirror, which does not return:
#   remote_list         runs (see run) a command that lists the remote directory, and is true
#                       only if the whole listing has arrived in $state/out;
#   remote_fetch NAME   runs one that fetches NAME to the file $part and lists NAME afterwards;
#   remote_delete NAME  runs one that deletes NAME;
#   listing             filters the listing of such a command: for each regular file one line
#                       "SIZE TIME NAME", SIZE in bytes, TIME as YYYYMMDDhhmmss;
#   reason              prints in one line why the last command failed, nothing if unknown.
# A command's exit status is that of the function; what it printed is in $state/out and
# $state/err. The local directory is the working directory from begin on.

# The name of an unfinished transfer; hidden, so that the daemon does not see it.
part=.helper.part

size_limit=1048576 # bytes of a file that is fetched

# Seconds after which a command that talks to the server is ended. The clients have time-outs of
# their own, but a server that sends a byte now and then could hold them for ever.
time_limit=60

# What such a command may write to one file, in blocks of 512 bytes: ends a transfer that goes on
# beyond the listed size, and an endless listing.
write_limit=4096

# Seconds until the next look after one that failed or showed something new, if the poll rate
# is longer than that.
settle_time=2

# Seconds until the next try after a refused login: servers lock an account on which many fail.
login_pause=30

newline='
'
state=
child=
troubles=$newline # those that were reported and are not over, in lines "KEY TEXT"

# Prints a line about this source on standard error.
say() {
  printf '%s helper: %s: %s\n' "$kind" "$source" \
    "$(printf '%s' "$1" | tr -c '\040-\176' '?')" >&3 || :
}

# Reports something that cannot get better and ends.
give_up() {
  say "$1"
  exit 1
}

# complain KEY TEXT: reports a trouble unless that was done before. KEY: one word.
complain() {
  case $troubles in
    *"$newline$1 $2$newline"*) ;;
    *)
      troubles="$troubles$1 $2$newline"
      say "$2"
      ;;
  esac
}

# over KEY TEXT: reports that the troubles of KEY are over, if there were any.
over() {
  case $troubles in
    *"$newline$1 "*)
      set_troubles "$(list_troubles | awk -v key="$1" '$1 "" != key ""')"
      say "$2"
      ;;
  esac
}

list_troubles() {
  printf '%s' "${troubles#"$newline"}"
}

set_troubles() {
  troubles="$newline${1:+$1$newline}"
}

# Waits for the command that was started last. Whatever may block is started in the background:
# a shell runs no trap before its foreground command has ended.
await() {
  child=$!
  wait "$child"
  status=$?
  child=
  return "$status"
}

# run COMMAND [ARGUMENT...]: runs a command that talks to the server.
run() {
  (
    # The locale is for directories and passwords that are not ASCII.
    ulimit -f "$write_limit" && exec timeout -s KILL "$time_limit" env LC_ALL=C.UTF-8 "$@"
  ) </dev/null >"$state/out" 2>"$state/err" 3>&- &
  await
}

# Why the last command failed.
why() {
  text=
  [ "$status" -ne 137 ] || text="no end after $time_limit seconds"
  [ -n "$text" ] || text=$(reason)
  [ -n "$text" ] || text=$(tail -n 1 "$state/err")
  printf '%s' "${text:-ended with status $status and without an answer}"
}

stop() {
  trap '' TERM HUP
  # timeout makes itself and its command a process group.
  [ -z "$child" ] || kill -s KILL -- "-$child" || kill -s KILL "$child"
  exit 0
}

clean_up() {
  [ -z "$state" ] || rm -rf "$state"
  rm -f "$part" .helper.timestamp.new
}

# True while the process that started this one lives: then it is still the parent.
parent_lives() {
  IFS= read -r process <"/proc/$$/stat" || return 0
  process=${process##*) ?\ } # the name in parentheses may hold anything; then the state letter
  [ "${process%% *}" -eq "$PPID" ]
}

# begin KIND SOURCE DEST: makes this shell a helper. KIND and SOURCE stand in its messages; DEST
# is the local directory. $state becomes a private directory for the helper's own files.
begin() {
  kind=$1 source=$2 dest=$3
  # Messages go where standard error went. What tools say of a full disk, at each pass, does not.
  exec 3>&2 2>/dev/null
  cd "$dest" || give_up "no directory $dest"
  trap '' INT PIPE
  trap stop TERM HUP
  trap clean_up EXIT
  umask 022 # the daemon may copy a message, with its mode, for others to read
  # UTC: with local times every file would seem to change when summer time begins.
  export LC_ALL=C TZ=UTC0
  state=$(mktemp -d "${TMPDIR:-/tmp}/vocastra-$kind.XXXXXX") || give_up 'no temporary directory'
  # The clients' own files, such as a history, go there, and none of the user's is read.
  export HOME="$state" LFTP_HOME="$state"
  : >"$state/delivered"
  : >"$state/reported"
}

# The lists are files in $state. Those of remote files have lines "NAME SIZE TIME"; names in them
# have no blanks. A list that is cut because the disk is full must count for nothing: what it
# lacks would be forgotten, fetched once more and spoken again. So each is tested, and the pass is
# given up.

# (Not by "grep -f": with an empty list, that of some small systems finds every line.)

# both FILE FILE2: the lines of FILE2 that are lines of FILE, too.
both() {
  awk 'FILENAME == ARGV[1] { listed[$0]; next } $0 in listed' "$1" "$2"
}

# without FILE: the lines of the standard input that are no lines of FILE.
without() {
  awk 'FILENAME == ARGV[1] { listed[$0]; next } !($0 in listed)' "$1" -
}

# Lists the remote directory. If that fails it is a trouble of the server.
server_answers() {
  if remote_list; then
    over server 'works again'
  else
    failure=$(why)
    complain server "$failure"
    return 1
  fi
}

# Makes lists of that listing: now, of the files with safe names, and unsafe, of the other names.
read_listing() {
  safe='^[0-9]+ [0-9]+ [A-Za-z0-9_][A-Za-z0-9._+=@-]*$'
  listing <"$state/out" >"$state/listed" || return
  awk -v safe="$safe" '$0 ~ safe && !seen[$3]++ { print $3, $1, $2 }' "$state/listed" |
    sort >"$state/now" || return
  awk -v safe="$safe" '$0 !~ safe' "$state/listed" | sed 's/^[0-9]* [0-9]* //' |
    tr -c '\040-\176\n' '?' | sort -u >"$state/unsafe"
}

# Reports the unsafe names that two listings show; reported has those that were, as long as they
# are shown.
report_unsafe_names() {
  [ -s "$state/unsafe" ] || [ -s "$state/reported" ] || return 0
  both "$state/unsafe.before" "$state/unsafe" | without "$state/reported" >"$state/todo"
  while IFS= read -r name; do
    say "refused the name \"$name\""
  done <"$state/todo"
  cat "$state/todo" >>"$state/reported"
  both "$state/reported" "$state/unsafe" >"$state/new"
  mv -f "$state/new" "$state/reported"
}

# remember NAME [SIZE TIME]: sets what was delivered under that name; nothing without a size.
remember() {
  {
    awk -v name="$1" '$1 "" != name ""' "$state/delivered" &&
      { [ $# -eq 1 ] || printf '%s %s %s\n' "$@"; }
  } >"$state/new" && mv -f "$state/new" "$state/delivered"
}

# Removes what neither this listing nor the one before shows, and forgets it.
drop_vanished() {
  cat "$state/before" "$state/now" >"$state/shown" || return
  awk 'FILENAME == ARGV[1] { shown[$1] = 1; next } !($1 in shown)' \
    "$state/shown" "$state/delivered" >"$state/todo" || return
  while read -r name size time; do
    rm -f "$name"
    remember "$name" || return
  done <"$state/todo"
  set_troubles "$(list_troubles | awk '
    FILENAME == ARGV[1] { shown["file:" $1] = 1; next }
    !/^file:/ || $1 in shown' "$state/shown" -)"
}

# Deletes remotely what the daemon took.
delete_taken() {
  both "$state/delivered" "$state/now" >"$state/todo" || return
  while read -r name size time; do
    [ ! -e "$name" ] || continue
    if remote_delete "$name"; then
      over "file:$name" "could delete $name now"
    else
      cause=$(why)
      server_answers || return
      complain "file:$name" "cannot delete $name: $cause"
    fi
  done <"$state/todo"
}

# Fetches what is settled and new, the oldest first.
fetch_settled() {
  both "$state/before" "$state/now" | without "$state/delivered" |
    sort -k 3,3 -k 1,1 >"$state/todo" || return
  while read -r name size time; do
    if [ "${#size}" -gt "${#size_limit}" ] || [ "$size" -gt "$size_limit" ]; then
      complain "file:$name" "$name is larger than $size_limit bytes"
    else
      fetch "$name" "$size" "$time" || return
      [ "$mirrored" = no ] || beat || return
    fi
  done <"$state/todo"
}

# fetch NAME SIZE TIME: delivers one file, or reports why not.
fetch() {
  rm -f "$part"
  if ! remote_fetch "$1" || [ ! -f "$part" ]; then
    cause=$(why)
    server_answers || return
    complain "file:$1" "cannot fetch $1: $cause"
  elif [ "$(listing <"$state/out")" != "$2 $3 $1" ] || [ "$(wc -c <"$part")" -ne "$2" ]; then
    complain "file:$1" "$1 changed while it was fetched"
  else
    # Remembered first: what is delivered and then not remembered would be spoken again.
    remember "$@" || return
    if ! mv -f "$part" "$1"; then
      remember "$1"
      return 1
    fi
    over "file:$1" "fetched $1 now"
  fi
  rm -f "$part"
}

# Proves that the helper lives. 100 texts in turn, since the daemon compares 16-bit checksums of
# them and takes 0 for a missing file: theirs are distinct and none is 0.
beat() {
  beats=$(((beats + 1) % 100))
  printf 'alive %02d\n' "$beats" >.helper.timestamp.new &&
    mv -f .helper.timestamp.new .helper.timestamp
}

# Deals with a listing; false if the pass has to be given up.
deal() {
  read_listing || return
  if [ -e "$state/before" ]; then
    report_unsafe_names
    drop_vanished || return
    [ "$auto_delete" = 0 ] || delete_taken || return
    fetch_settled || return
    mirrored=yes
    ! cmp -s "$state/before" "$state/now" || steady=yes
  fi
  [ "$mirrored" = no ] || beat || return
  mv -f "$state/unsafe" "$state/unsafe.before"
  mv -f "$state/now" "$state/before"
}

# One look at the server. Two listings are "in a row" only if nothing failed between them: an
# upload that broke off because the server was gone looks settled at once when it is back.
pass() {
  failure='' steady=no
  if ! server_answers; then
    rm -f "$state/before" "$part"
  elif deal; then
    over local 'can write files again'
  else
    rm -f "$state/before" "$part"
    [ -n "$failure" ] || complain local "cannot write to $dest or to $state"
  fi
}

# Seconds until the next pass.
pause() {
  case $failure in
    '530 '* | *': 530 '* | *NT_STATUS_LOGON_* | *NT_STATUS_ACCOUNT_* | *PASSWORD*)
      echo "$login_pause"
      ;;
    *)
      if [ "$steady" = no ] && [ "$poll" -gt "$settle_time" ]; then
        echo "$settle_time"
      else
        echo "$poll"
      fi
      ;;
  esac
}

# mirror AUTO_DELETE POLL: does the helper's work. AUTO_DELETE: 0 for no; POLL: seconds.
mirror() {
  auto_delete=${1:-0} poll=$2
  beats=-1 mirrored=no
  while :; do
    pass
    seconds=$(pause)
    while [ "$seconds" -gt 0 ]; do
      parent_lives || exit 0
      sleep 1 &
      await
      seconds=$((seconds - 1))
    done
  done
}
