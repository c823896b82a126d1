# What script/install and script/uninstall share: where things are installed, and the list of what was. Sourced by both.
# Set here: prefix; user (yes or no); root, that is DESTDIR, below which everything is put; manifest, which says of an
# installation "file PATH" and "folder PATH" for each file and for each folder that it made, paths without DESTDIR.

name=vornet-vi
root=${DESTDIR:-}
root=${root%/}
user=no
prefix=/usr
given=no

fail() { echo "${0##*/}: $*" >&2; exit 1; }
wrong() { echo "${0##*/}: $*" >&2; usage >&2; exit 2; }

# target_option ARGUMENT [VALUE]: takes the options that say where; false for another one. `taken` is how many words it was.
target_option() {
  taken=1
  case $1 in
    --user) user=yes ;;
    --prefix)
      [[ $# -ge 2 ]] || wrong "--prefix needs a folder"
      prefix=$2 given=yes taken=2
      ;;
    --prefix=*) prefix=${1#*=} given=yes ;;
    *) return 1 ;;
  esac
}

settle_target() {
  if [[ $user == yes ]]; then
    [[ $given == no ]] || wrong "--user and --prefix exclude each other"
    [[ -n ${HOME:-} ]] || fail "HOME is not set"
    prefix=$HOME/.local
  fi
  prefix=${prefix%/}
  [[ $prefix == /?* && $prefix != *$'\n'* && $prefix/ != */../* ]] || wrong "the prefix must be an absolute folder: '$prefix'"
  config=${XDG_CONFIG_HOME:-${HOME:-}/.config}
  manifest=$prefix/share/$name/install-manifest
}

# May this user write where DIR is or will be made?
is_writable() {
  local folder=$1
  while [[ ! -e $folder ]]; do folder=$(dirname "$folder"); done
  [[ -w $folder ]]
}

# Sets `rights` to what must stand before a command that writes to the prefix; fails where there is no way to that.
find_rights() {
  rights=()
  if is_writable "$root$prefix/share/$name" && is_writable "$root$prefix/bin"; then return; fi
  [[ $EUID -ne 0 && $user == no ]] || fail "cannot write to $root$prefix"
  if ! command -v sudo >/dev/null || { ! sudo -n true 2>/dev/null && [[ ! -t 0 ]]; }; then
    fail "cannot write to $root$prefix: run this as root, or give --user"
  fi
  rights=(sudo env DESTDIR="$root")
}

# Only what lies where we install is ever removed, whatever a list says.
is_ours() { [[ $1 != *..* && ($1 == "$prefix"/?* || ($user == yes && $1 == "$config"/?*)) ]]; }

listed() { [[ ! -r $root$manifest ]] || sed -n "s|^$1 /|/|p" "$root$manifest"; }

# A stale icon-theme.cache hides new icons. One is kept where the system has one, and refreshed where there is any.
refresh_icons() {
  local icons=$prefix/share/icons/hicolor
  [[ -z $root && -d $icons ]] || return 0
  [[ $prefix == /usr || $prefix == /usr/local || -e $icons/icon-theme.cache ]] || return 0
  if command -v gtk-update-icon-cache >/dev/null; then gtk-update-icon-cache -q -t -f "$icons" || true; fi
}

bus_call() { # METHOD ARGUMENT…
  gdbus call --session --timeout 3 --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
    --method "org.freedesktop.DBus.$1" "${@:2}" 2>/dev/null </dev/null
}

# The bus of this session, where there is one, learns of the service file that came or went, and an extension of a former
# installation ends; the next request starts the present one.
tell_session() {
  [[ -z $root && -n ${DBUS_SESSION_BUS_ADDRESS:-}${XDG_RUNTIME_DIR:-} ]] && command -v gdbus >/dev/null || return 0
  bus_call ReloadConfig >/dev/null || return 0
  local process
  process=$(bus_call GetConnectionUnixProcessID com.vornet.KelvaneSync.FinderBadgeExtension) || return 0
  process=${process//[^0-9 ]/}
  process=${process##* }
  [[ -n $process && $(readlink "/proc/$process/exe") == */VornetVIExt* ]] || return 0
  kill -TERM "$process" 2>/dev/null || true
}
