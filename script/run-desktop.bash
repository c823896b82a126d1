# What script/run --desktop is made of: the demonstration in the window of a real file manager. Read by script/run.

managers=(nautilus nemo caja dolphin thunar)

# Sets `manager`: the one named, or the first that is installed.
choose_manager() {
  local wanted=${1:-} candidate
  if [[ -n $wanted && " ${managers[*]} " != *" $wanted "* ]]; then
    echo "script/run: no such file manager: $wanted (${managers[*]})" >&2
    exit 2
  fi
  [[ -n ${DISPLAY:-}${WAYLAND_DISPLAY:-} ]] || fail "--desktop needs a display; without it, script/run shows the same in the terminal"
  for candidate in ${wanted:-"${managers[@]}"}; do
    if command -v "$candidate" >/dev/null; then
      manager=$candidate
      return
    fi
  done
  [[ -z $wanted ]] || fail "$wanted is not installed: apt-get install $wanted"
  fail "no file manager is installed: apt-get install nautilus (or nemo, caja, dolphin with breeze-icon-theme, thunar)"
}

# Puts the plug-in of `manager` into `layer`, as it would lie in /usr; Dolphin is told where to look instead.
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

# The user's own look, a place of its own for what the file manager writes, and nothing of the session that runs already.
prepare_desktop() {
  local own=${XDG_RUNTIME_DIR:-/run/user/$EUID}
  [[ -z ${WAYLAND_DISPLAY:-} || $WAYLAND_DISPLAY == /* ]] || export WAYLAND_DISPLAY=$own/$WAYLAND_DISPLAY
  export XDG_RUNTIME_DIR=$work/runtime XDG_DATA_HOME=$work/data
  export XDG_DATA_DIRS=$build/share:${XDG_DATA_DIRS:-/usr/local/share:/usr/share}
  export GTK_USE_PORTAL=0
  layer=$work/layer qt_plugins=''
  mkdir -p "$XDG_DATA_HOME" "$layer"
  chmod 755 "$work" "$layer"
  collect_plugin
  export VORNET_RUN_LAYER=$layer
  # Not the session's: those of the other programs belong to another bus.
  unset DBUS_SESSION_BUS_ADDRESS AT_SPI_BUS_ADDRESS
  if [[ -n $qt_plugins ]]; then
    export QT_PLUGIN_PATH=$qt_plugins${QT_PLUGIN_PATH:+:$QT_PLUGIN_PATH}
  else
    namespace
    "${unshare[@]}" "${lay_over[@]}" "$layer" true 2>/dev/null ||
      fail "this system does not let you run $manager with a plug-in that is not installed: script/install installs it"
  fi
}

# Sets `unshare` and `lay_over`: what runs a command (after the layer's name) in a view of the system in which the layer
# lies over /usr. An ordinary user has the right to that in a user namespace, and the command is run without it.
namespace() {
  unshare=(unshare --mount)
  [[ $EUID -eq 0 ]] || unshare=(unshare --map-current-user --keep-caps --mount)
  # shellcheck disable=SC2016 # for the shell inside
  lay_over=(bash -c 'mount -t overlay overlay -o "lowerdir=$1:/usr" /usr && shift &&
    exec setpriv --ambient-caps=-all --inh-caps=-all "$@"' lay-over)
}

# In the private bus: opens `folder`, and ends when its window is closed.
show_in_window() {
  local options=()
  case $manager in
    nautilus | dolphin) options=(--new-window) ;;
    caja) options=(--no-desktop --browser) ;;
    nemo) options=(--no-desktop) ;;
  esac
  local command=("$manager" "${options[@]}" "$folder") proper=${manager^}
  if [[ $manager != dolphin ]]; then
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
  tell "What you choose arrives at the sync application (stand-in), and is told here:"
  tail -n +1 -F --pid="$window" "$work/sim.log" 2>/dev/null | sed -u -n 's/^action  */    /p' &
  wait "$window" || true
  title "The window is closed: all is cleaned up"
}
