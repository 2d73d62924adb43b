#!/usr/bin/env bash
# The window's accessibility, as a screen reader sees it: a private X display, a private session
# bus (which starts the accessibility bus on demand) and a throw-away home, then a11y_check.py
# walks every page the probe shows.
#   a11y_check.sh PROBE
set -euo pipefail
probe=$1
here=$(cd "$(dirname "$0")" && pwd)

for tool in Xvfb dbus-run-session timeout /usr/bin/python3; do
  command -v "$tool" >/dev/null || { echo "missing: $tool (scripts/setup installs it)" >&2; exit 1; }
done
/usr/bin/python3 -c 'import pyatspi' 2>/dev/null ||
  { echo "missing: python3-pyatspi (scripts/setup installs it)" >&2; exit 1; }

scratch=$(mktemp -d "${TMPDIR:-/tmp}/quillmar-a11y.XXXXXX")
xvfb=""
cleanup() {
  if [ -n "$xvfb" ]; then kill "$xvfb" 2>/dev/null || true; wait "$xvfb" 2>/dev/null || true; fi
  rm -rf "$scratch"
}
trap cleanup EXIT
mkdir -p "$scratch/home/.config" "$scratch/home/.local/share" "$scratch/home/.cache"
mkdir -m 0700 "$scratch/runtime"
export HOME="$scratch/home" XDG_CONFIG_HOME="$scratch/home/.config"
export XDG_DATA_HOME="$scratch/home/.local/share" XDG_CACHE_HOME="$scratch/home/.cache"
export XDG_RUNTIME_DIR="$scratch/runtime"
unset DBUS_SESSION_BUS_ADDRESS AT_SPI_BUS_ADDRESS WAYLAND_DISPLAY

# Xvfb writes its display number once it accepts connections.
Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp 3>"$scratch/display" 2>"$scratch/xvfb.log" &
xvfb=$!
for _ in $(seq 100); do
  [ -s "$scratch/display" ] && break
  sleep 0.1
done
[ -s "$scratch/display" ] || { echo "Xvfb did not start" >&2; cat "$scratch/xvfb.log" >&2; exit 1; }
export DISPLAY=":$(head -n1 "$scratch/display")"

export QT_QPA_PLATFORM=xcb QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1 QT_ACCESSIBILITY=1
timeout --kill-after=5 240 dbus-run-session -- /usr/bin/python3 "$here/a11y_check.py" "$probe"
