# Turns the web page on as an operator does, and uses it. tools/test-install sources this file,
# which needs the functions of failures.sh and figures.sh.
#
# tools/test-install sets some variables:
# shellcheck shell=bash disable=SC2016,SC2154

page=http://127.0.0.1:8080
password='correct horse'
announcement='The coach to the harbour leaves at noon.'

# Only the web page, from the installation to the purge.
test_desk() {
  boot_installed "$(package_for amd64)" || return 0
  check "the service runs after boot" within 60 is_active
  check "a player" start_player
  check "vocastra-status reports no problem" within 60 status_is_fine
  try_desk
  check "apt purge vocastra while it runs" inside apt-get purge -y -qq vocastra
  check "no process left" no_process
  inside rm -r /etc/systemd/system/vocastra-player.service.d
  check "no file, account or group left" nothing_left inside
}

# Leaves the page turned on, so that the purge has to remove it.
try_desk() {
  check "the page is neither enabled nor running" desk_is_off
  check "an operator adds a user" \
    inside sh -c 'echo "$1" | vocastra-desk --add-user anna' sh "$password"
  check "an operator turns the page on" inside systemctl enable --now vocastra-desk
  check "the page is served" within 60 desk_curl --fail "$page/healthz"
  check "exposure of vocastra-desk.service at most 1.5 ($(exposure vocastra-desk))" \
    exposure_at_most vocastra-desk 15
  check "a wrong password is refused" answers 403 -d user=anna -d "password=wrong horse" "$page/login"
  check "the user logs in" log_in
  check "a form without a token is refused" answers 403 "${say[@]}" "$page/say"
  check "the user says a message" answers 303 "${say[@]}" -d "token=$(token)" "$page/say"
  check "that message is heard in full" within 60 desk_message_is_heard
  check "the page shows that" within 60 page_has 'heard in full'
  check "the log has user, directory and text" log_has_announcement
  check "the page's user cannot read the configuration" configuration_is_hidden
  check "an upgrade restarts the page" upgrade_restarts_desk
  check "the user logs in again" log_in
  check "the history survives the upgrade" page_has "$announcement"
}

say=(-d directory=announcements --data-urlencode "text=$announcement")

desk_is_off() {
  [[ $(inside systemctl is-enabled vocastra-desk) == disabled ]] && not is_active vocastra-desk
}

# Runs outside of the container, which has no browser.
desk_curl() {
  nsenter --target "$leader" --net \
    curl --silent --show-error --max-time 60 -b "$work/cookies" -c "$work/cookies" "$@"
}

# answers STATUS ARGUMENT...
answers() {
  local status
  status=$(desk_curl --output "$work/page" --write-out '%{http_code}' "${@:2}")
  echo "status $status"
  [[ $status == "$1" ]]
}

log_in() { answers 303 -d user=anna --data-urlencode "password=$password" "$page/login"; }

token() { desk_curl "$page/" | sed -n 's/.*name="token" value="\([0-9a-f]*\)".*/\1/p' | head -n 1; }

page_has() { desk_curl "$page/" | grep -F "$1"; }

desk_message_is_heard() {
  [[ $(status_value 'print(*(message["state"] for message in status["messages"]
    if message["file"].startswith("desk-")))') == heard ]]
}

log_has_announcement() {
  inside journalctl --no-pager --quiet --unit=vocastra-desk |
    grep -E "user anna says in announcements, as desk-[0-9-]+: $announcement\$"
}

# as_desk COMMAND...: runs a command in the confinement of the service.
as_desk() {
  inside nsenter --mount --target "$(desk_process)" runuser -u vocastra-desk -- "$@"
}

desk_process() { inside systemctl show --property=MainPID --value vocastra-desk | grep -v '^0$'; }

# The desk reads the published directories, but no configuration. Other users may read the package's
# configuration, so the confinement must hide it.
configuration_is_hidden() {
  local file
  inside runuser -u stranger -- test -r /etc/vocastra/vocastra.conf &&
    as_desk test -r /run/vocastra/directories.xml || return 1
  for file in /etc/vocastra/vocastra.conf /run/vocastra/vocastra.conf /var/lib/vocastra/vocastra.conf; do
    inside test -f "$file" && not as_desk cat "$file" || return 1
  done
}

upgrade_restarts_desk() {
  local before
  before=$(desk_process)
  install_again &&
    within 60 new_desk "$before" && within 60 desk_curl --fail "$page/healthz"
}

new_desk() { is_active vocastra-desk && [[ $(desk_process) != "$1" ]]; }
