# shellcheck shell=sh
# A night on the emulated board, for tools/device: read by its shell after device-guest.sh. It leaves in
# $night "dropped", a line for each message; "hours", a line of figures for each hour; "done", at the end.

night=/mnt/night
run=/run/vocastra
inputs=$run/inputs
number=0 revision=0 step=0 ordered=0
guest=0  # 1: the configuration has a further remote directory.

now() { cut -d . -f 1 /proc/uptime; }

# set_clock SECONDS: moves it by that many.
set_clock() { date -u -s "@$(($(date +%s) + $1))" >/dev/null; }

place() {
  case $1 in
    everyday) echo /var/spool/vocastra/announcements ;;
    site) echo /mnt/site/site ;;
    *) echo $inputs/"$1" ;;
  esac
}

# say DIRECTORY: hands over the next message, of words that no other one has.
say() {
  number=$((number + 1))
  name=$(printf '%s%06d' "$1" $number)
  count=$((number * 7 % 21 + 3))
  if [ "$1" = voice ]; then count=4; fi
  text=''
  for word in $(seq $count); do text="$text$name-$word "; done
  if [ "$1" = xml ]; then text="<m><noise>skipped</noise><text>$text</text></m>"; fi
  if echo "$text" | hand "$(place "$1")" "$name" 2>/dev/null; then
    echo "$name $count" >>$night/dropped
  else
    echo "$name $count" >>$night/refused
  fi
}

say_next() {
  case $((number % 40)) in
    7) say voice ;;
    *1 | *6) say everyday ;;
    *2) say urgent ;;
    *3) say twice ;;
    *4 | *9) say site ;;
    *5) say flaky ;;
    *) say xml ;;
  esac
}

apply() { mv /etc/vocastra/.new /etc/vocastra/vocastra.conf; }

configure() {
  revision=$((revision + 1))
  if [ $guest = 1 ]; then without='^$'; else without='id="guest"'; fi
  sed "s/REVISION/$revision/; /$without/d" $night/config >/etc/vocastra/.new && apply
}

prepare() {
  for name in urgent twice xml flaky voice changing; do mkdir -p $inputs/$name; done
  chown -R vocastra $inputs
  configure
}

# Nothing waits, is being said or is being played.
quiet() {
  grep -q 'now-playing="0"' $run/status.xml && grep -q 'playing=""' $run/player &&
    ! grep -qE '<message |updated-file-count="[1-9]' $run/status.xml &&
    [ -z "$(ls $run/out)$(ls /mnt/site/site)" ]
}

await_quiet() {
  limit=$(($(now) + 900))
  until quiet && sleep 3 && quiet; do
    sleep 2
    if [ "$(now)" -gt $limit ]; then
      echo "not quiet after step $step, at $(now)" >>$night/problems
      return
    fi
  done
}

kinds='reload reload guest broken gone clock full site player daemon reload'  # Of disturbances.

# One disturbance after the other.
disturb() {
  step=$((step + 1))
  kind=$(echo "$kinds" | cut -d ' ' -f $((step % 11 + 1)))
  echo "$kind" >>$night/disturbed
  case $kind in
    reload) configure ;;
    guest)
      guest=$((1 - guest))
      configure
      ;;
    broken)
      sed 's/<.tts-config>/<oops>/' /etc/vocastra/vocastra.conf >/etc/vocastra/.new && apply
      sleep 20
      say urgent
      sleep 20
      configure
      ;;
    gone)
      mv $inputs/changing $inputs/away
      sleep 10
      say urgent
      sleep 10
      mv $inputs/away $inputs/changing
      ;;
    clock)
      if [ $((step % 2)) -eq 0 ]; then years=3; else years=-20; fi
      say everyday
      set_clock $((years * 31536000))
      sleep 30
      say everyday
      say site
      sleep 60
      set_clock $((-years * 31536000))
      ;;
    full)
      dd if=/dev/zero of=/fill bs=64k 2>/dev/null
      dd if=/dev/zero of=/fill2 bs=1k 2>/dev/null
      say everyday
      say urgent
      say xml
      sleep 60
      rm /fill /fill2
      ;;
    site)
      mv /mnt/site/site /mnt/away
      sleep 30
      say xml
      sleep 60
      mv /mnt/away /mnt/site/site
      ;;
    player)
      say everyday
      sleep 1
      killall player
      ;;
    daemon)
      await_quiet
      ordered=$((ordered + 1))
      rm $run/status.xml
      killall -9 vocastra
      if ! within 60 speaks || ! within 60 grep -q 'id="site".* status="1"' $run/status.xml; then
        echo "no daemon or no site after step $step, at $(now)" >>$night/problems
      fi >/dev/null
      ;;
  esac
}

descriptors() {
  project | while read -r process name; do
    find "/proc/$process/fd" -type l 2>/dev/null
  done | wc -l
}

# figures UNTIL: looks at an idle board until then, for at least a minute. All hours end with the
# same remote directories, so that their figures can be compared.
figures() {
  guest=0
  configure
  await_quiet
  sync
  sleep 40
  begun=$(now) before=$(written) rest=$(($1 - begun))
  if stopped || [ $rest -lt 60 ]; then rest=60; fi
  sleep $rest
  {
    echo "time=$(now) idle=$(($(now) - begun)) written=$(($(written) - before)) ordered=$ordered"
    echo " station=$(pidof vocastra-station) descriptors=$(descriptors)"
    sed -n 's/.*<counter name="\(restarts\|lost\)" value="\([0-9]*\)".*/ \1=\2/p' $run/health
    memory | awk '{ sum[$2] += $1; all += $1 }
      END { for (name in sum) print " KB." name "=" sum[name]; print " KB=" all }'
  } | tr -d '\n' >>$night/hours
  echo >>$night/hours
}

stopped() { [ -e $night/stop ]; }

# night HOURS EVERY: a disturbance follows each so many messages.
night() {
  messages=0
  for hour in $(seq "$1"); do
    until=$(($(now) + 3600))
    while [ "$(now)" -lt $((until - 900)) ] && ! stopped; do
      say_next
      sleep $((number * 13 % 140 + 60))
      messages=$((messages + 1))
      if [ $((messages % $2)) -eq 0 ]; then disturb; fi
    done
    figures $until
    if stopped; then break; fi
  done
  echo "$hour" >$night/done
}
