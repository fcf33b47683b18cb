# shellcheck shell=sh
# Functions of the emulated board for tools/device: read by its shell, which is busybox's.

run=/run/vocastra
said=/tmp/log  # The log.

up() { cut -d ' ' -f 1 /proc/uptime; }

# within SECONDS COMMAND...: whether it becomes true in that time. Prints how long it took.
within() {
  begun=$(up) limit=$1 pause=0.1
  if [ "$1" -gt 100 ]; then pause=1; fi
  shift
  until "$@"; do
    if awk "BEGIN { exit $(up) < $begun + $limit }"; then return 1; fi
    sleep $pause
  done
  awk "BEGIN { print $(up) - $begun }"
}

speaks() { grep -q 'state="run"' $run/status.xml 2>/dev/null; }

# logged PATTERN [COUNT]: the log has that many lines with the pattern.
logged() { [ "$(grep -c -e "$1" $said)" -ge "${2:-1}" ]; }

# plays DIRECTORY: the player has sound of it now.
plays() { grep -q "playing=\"[0-9]*_$1[.]" $run/player; }

# first_sample DIRECTORY: waits for it, and prints the seconds. Looks every 10 milliseconds.
first_sample() {
  begun=$(up)
  until plays "$1"; do usleep 10000; done
  awk "BEGIN { print $(up) - $begun }"
}

# restart: starts station and player again, with the options that they have now.
restart() {
  station=$(pidof vocastra-station)
  killall vocastra-station player
  while kill -0 "$station" 2>/dev/null; do sleep 0.1; done
  rm -f $run/status.xml
  within 60 speaks
}

# hand DIRECTORY NAME: the text is on standard input. The name of the file appears at once.
hand() { cat >"$1/.new" && flock "$1" mv "$1/.new" "$1/$2"; }

# project: process and name of all that belongs to the project.
project() {
  for link in /proc/[0-9]*/exe; do
    program=$(readlink "$link")
    case $program in
      *vocastra*)
        directory=${link%/exe}
        echo "${directory#/proc/} ${program##*/}"
        ;;
    esac
  done
}

# memory: PSS in KB and name of each process.
memory() {
  project | while read -r process name; do
    awk -v name="$name" '/^Pss:/ { print $2, name }' "/proc/$process/smaps_rollup" 2>/dev/null
  done
}

# most_memory COUNT [NAME]: the most of each name in that many looks, and of all together. With a NAME,
# each look waits until a process of that name runs, and stops it while it looks, each time a bit later.
most_memory() {
  for look in $(seq "$1"); do
    if [ "${2:-}" ]; then
      until process=$(pidof "$2"); do usleep 10000; done
      usleep $((look * 5000))
      kill -STOP "$process" 2>/dev/null
      memory
      kill -CONT "$process" 2>/dev/null
    else
      memory
    fi
    echo
  done | awk '
    NF { sum[$2] += $1; all += $1; next }
    {
      for (name in sum) if (sum[name] > most[name]) most[name] = sum[name]
      if (all > most["all"]) most["all"] = all
      split("", sum)
      all = 0
    }
    END { for (name in most) print most[name], name }'
}

# ticks: processor time and name of each process, with its children that have ended.
ticks() {
  project | while read -r process name; do
    sed 's/.*) //' "/proc/$process/stat" 2>/dev/null |
      awk -v key="$name-$process" '{ print $12 + $13, $14 + $15, key }'
  done
}

# written: sectors written to flash since the start.
written() { awk '$3 == "vda" { print $10 }' /proc/diskstats; }
