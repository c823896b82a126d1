# Sourced by the tests, as root: an ordinary user with a message bus and a synced folder. All of it goes with the test.
set -euo pipefail
user=vornet-test home=/home/vornet-test
started=() # process ids
work=$(mktemp -d)
chmod 755 "$work"
export LC_ALL=C.UTF-8

fail() {
  echo "FAILED: $*" >&2
  for log in "$work"/*.log "$data/log/vi.log"; do [[ ! -s $log ]] || { echo "--- $log"; tail -n 30 "$log"; }; done >&2
  exit 1
}
# What its session left running may write into the home once more.
remove_user() {
  userdel --force "$user" 2>/dev/null || true
  rm -rf "$home"
}
clean_up() {
  local process
  for process in "${started[@]}"; do kill "$process" 2>/dev/null || true; done
  wait || true
  remove_user
  rm -rf "$work"
}
trap clean_up EXIT
remove_user # of the test before
useradd --create-home --home-dir "$home" --shell /bin/sh "$user"
folder=$home/Kelvane data=$home/.local/share/group-containers/com.vornet.KelvaneSync
install -d -m 700 -o "$user" -g "$user" "$work/runtime"
environment=(HOME="$home" PATH="$PATH" LC_ALL=C.UTF-8 XDG_RUNTIME_DIR="$work/runtime"
  DBUS_SESSION_BUS_ADDRESS="unix:path=$work/runtime/bus")

as_user() { setpriv --reuid "$user" --regid "$user" --init-groups env -i --chdir="$home" "${environment[@]}" "$@"; }
# start NAME COMMAND…: in the background, as the user, until the end of the test. Sets `process`.
start() {
  setpriv --reuid "$user" --regid "$user" --init-groups env -i --chdir="$home" "${environment[@]}" "${@:2}" \
    >"$work/$1.log" 2>&1 </dev/null &
  process=$!
  started+=("$process")
}
# wait_until WHAT COMMAND…
wait_until() {
  local end=$((SECONDS + 120))
  until "${@:2}" >/dev/null 2>&1; do
    [[ $SECONDS -lt $end ]] || fail "no $1 within two minutes"
    sleep 0.1
  done
}
bus_call() { # METHOD ARGUMENT…
  as_user dbus-send --session --print-reply=literal --dest=org.freedesktop.DBus /org/freedesktop/DBus \
    "org.freedesktop.DBus.$1" "string:com.vornet.KelvaneSync.FinderBadgeExtension"
}
# The process id of the extension; empty while none runs.
extension() { bus_call GetConnectionUnixProcessID 2>/dev/null | sed 's/.* //' || true; }
is_gone() { ! readlink "/proc/$1/exe"; } # a zombie has none

start_bus() {
  start bus dbus-daemon --session --nofork --nopidfile --address="unix:path=$work/runtime/bus"
  wait_until "message bus" test -S "$work/runtime/bus"
}
# The stand-in, with every file synced.
start_sync_application() {
  as_user mkdir "$folder"
  as_user touch "$folder/Report.md" "$folder/Notes.txt"
  start sync-application kelvane-sim "$folder" --container "$data" --synced
  wait_until "stand-in for the sync application" grep -q '^started' "$work/sync-application.log"
}
shows_badges() { as_user vornet-vi --json list "$folder" | tee "$work/list.log" | grep '"Report.md"' | grep -q '"SYNCED"'; }
