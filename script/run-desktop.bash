# script/run --desktop: the demonstration in the window of a real file manager. Sourced by script/run.

managers=(nautilus nemo caja dolphin thunar)

# Sets `manager`: the one named, or the first that is installed.
choose_manager() {
  local wanted=${1:-} candidate
  if [[ -n $wanted && " ${managers[*]} " != *" $wanted "* ]]; then
    echo "$me: no such file manager: $wanted (${managers[*]})" >&2
    exit 2
  fi
  [[ -n ${DISPLAY:-}${WAYLAND_DISPLAY:-} ]] || fail "--desktop needs a display; without it, $me shows the same in the terminal"
  for candidate in ${wanted:-"${managers[@]}"}; do
    if command -v "$candidate" >/dev/null; then
      manager=$candidate
      return
    fi
  done
  [[ -z $wanted ]] || fail "$wanted is not installed: apt-get install $wanted"
  fail "no file manager is installed: apt-get install nautilus (or nemo, caja, dolphin with breeze-icon-theme, thunar)"
}

# Puts the plug-in of `manager` into `layer`, laid out as in /usr; for Dolphin it sets a search path instead.
collect_plugin() {
  local patterns=() pattern file
  case $manager in
    nautilus) patterns=('lib*/nautilus/extensions-4/libvornet-nautilus.so') ;;
    nemo) patterns=('lib*/nemo/extensions-3.0/libvornet-nemo.so') ;;
    caja) patterns=('lib*/caja/extensions-2.0/libvornet-caja.so' 'share/caja/extensions/libvornet-caja.caja-extension') ;;
    dolphin) patterns=('lib*/kf[56]/overlayicon/vornetoverlay.so') ;;
    thunar) patterns=('lib*/thunarx-3/libvornet-thunar.so') ;;
  esac
  for pattern in "${patterns[@]}"; do
    file=$(cd "$build" && find lib* share/caja -path "$pattern" 2>/dev/null | head -n 1)
    [[ -n $file ]] || fail "the plug-in for $manager was not built in $build"
    if [[ $manager == dolphin ]]; then
      qt_plugins=$build/${file%/kf[56]/*}
    else
      mkdir -p "$layer/${file%/*}"
      cp "$build/$file" "$layer/$file"
    fi
  done
}

# Keeps the user's theme, gives the file manager a private place to write, and hides the running session.
prepare_desktop() {
  local own=${XDG_RUNTIME_DIR:-/run/user/$EUID}
  [[ -z ${WAYLAND_DISPLAY:-} || $WAYLAND_DISPLAY == /* ]] || export WAYLAND_DISPLAY=$own/$WAYLAND_DISPLAY
  export XDG_RUNTIME_DIR=$work/runtime XDG_DATA_HOME=$work/data
  export XDG_DATA_DIRS=$build/share:${XDG_DATA_DIRS:-/usr/local/share:/usr/share}
  export GTK_USE_PORTAL=0
  layer=$work/layer qt_plugins=''
  mkdir -p "$XDG_DATA_HOME" "$layer"
  chmod 755 "$work" "$layer"
  if [[ $build == /usr ]]; then
    [[ $(dpkg-query -W -f='${db:Status-Status}' "$manager-vornet-vi" 2>/dev/null) == installed ]] ||
      fail "the plug-in is not installed: apt-get install $manager-vornet-vi"
  else
    collect_plugin
  fi
  export VORNET_RUN_LAYER=$layer
  # The session's buses are not for the demonstration.
  unset DBUS_SESSION_BUS_ADDRESS AT_SPI_BUS_ADDRESS
  if [[ $build == /usr ]]; then
    return
  elif [[ -n $qt_plugins ]]; then
    export QT_PLUGIN_PATH=$qt_plugins${QT_PLUGIN_PATH:+:$QT_PLUGIN_PATH}
  else
    namespace
    "${unshare[@]}" "${lay_over[@]}" "$layer" true 2>/dev/null ||
      fail "this system does not let you run $manager with a plug-in that is not installed: script/install installs it"
  fi
}

# Sets `unshare` and `lay_over`, which run a command (after the layer's name) with the layer mounted over /usr. An ordinary
# user needs a user namespace for that; the command runs without its rights.
namespace() {
  unshare=(unshare --mount)
  [[ $EUID -eq 0 ]] || unshare=(unshare --map-current-user --keep-caps --mount)
  # shellcheck disable=SC2016 # for the shell inside
  lay_over=(bash -c 'mount -t overlay overlay -o "lowerdir=$1:/usr" /usr && shift &&
    exec setpriv --ambient-caps=-all --inh-caps=-all "$@"' lay-over)
}

# On the private bus: opens `folder`, and ends when its window is closed.
show_in_window() {
  local options=()
  case $manager in
    nautilus | dolphin) options=(--new-window) ;;
    caja) options=(--no-desktop --browser) ;;
    nemo) options=(--no-desktop) ;;
  esac
  local command=("$manager" "${options[@]}" "$folder") proper=${manager^}
  if [[ $manager != dolphin && $build != /usr ]]; then
    namespace
    command=("${unshare[@]}" "${lay_over[@]}" "$VORNET_RUN_LAYER" "${command[@]}")
  fi

  title "$proper opens it; the extension starts"
  "${command[@]}" >"$work/manager.log" 2>&1 </dev/null &
  window=$!
  trap 'kill "$window" "$simulator" 2>/dev/null; wait "$window" "$simulator" 2>/dev/null || true' EXIT
  trap 'exit 0' INT TERM
  if [[ $manager == thunar ]]; then
    tell "Thunar has no place for badges; it shows the menu. The other file managers show both."
  else
    tell "Badges: a check mark is synced, arrows are in progress, a red triangle is not synced. They are updated automatically."
    tell "Change a file in it, or add one, and see its badge."
  fi

  title "Right-click a file: Share, Copy Link, Comments, View versions, View in Cloud"
  tell "The sync application (stand-in) receives the choice. It appears here:"
  tail -n +1 -F --pid="$window" "$container/actions.jsonl" 2>/dev/null &
  wait "$window" || true
  title "The window is closed: everything is cleaned up"
}
