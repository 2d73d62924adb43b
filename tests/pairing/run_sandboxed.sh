#!/usr/bin/env bash
# Runs a keychain test binary in a throwaway session, so it can never touch the user's own
# keyring: its own HOME and XDG folders, no display (no unlock prompt can ever appear), and
#   keyring     a private session bus with gnome-keyring's Secret Service, unlocked with the
#               password in QUILLMAR_KEYRING_PASSWORD (so a test can lock and unlock it again)
#   silent-bus  a private session bus with no secret service running (the test brings its own)
#   no-bus      no session bus at all
#   dead-bus    a session bus address that nothing listens on
# Every test token contains "QmSecret"; the run fails if one shows up in the output.
set -euo pipefail

mode=$1
shift

scratch=$(mktemp -d "${TMPDIR:-/tmp}/quillmar-keychain.XXXXXX")
trap 'chmod -R u+rwX "$scratch" 2>/dev/null; rm -rf "$scratch"' EXIT

export HOME="$scratch/home"
export XDG_CONFIG_HOME="$HOME/.config" XDG_DATA_HOME="$HOME/.local/share" XDG_CACHE_HOME="$HOME/.cache"
export XDG_RUNTIME_DIR="$scratch/runtime"
mkdir -p "$HOME"
mkdir -m 0700 "$XDG_RUNTIME_DIR"
unset DISPLAY WAYLAND_DISPLAY XDG_CURRENT_DESKTOP DESKTOP_SESSION KDE_FULL_SESSION GNOME_KEYRING_CONTROL
export QUILLMAR_KEYCHAIN_SANDBOX="$mode"

for tool in timeout dbus-run-session gnome-keyring-daemon; do
    if ! command -v "$tool" >/dev/null; then
        echo "FAIL: $tool is missing; scripts/setup installs it" >&2
        exit 1
    fi
done

output="$scratch/output"
status=0
case "$mode" in
keyring)
    # The password must not be empty: an empty one makes the daemon prompt for a new one.
    export QUILLMAR_KEYRING_PASSWORD=sandbox-password
    timeout --kill-after=5 90 dbus-run-session -- bash -c \
        'echo -n "$QUILLMAR_KEYRING_PASSWORD" | gnome-keyring-daemon --unlock --components=secrets >/dev/null 2>&1; exec "$@"' \
        keyring "$@" >"$output" 2>&1 || status=$?
    ;;
silent-bus)
    timeout --kill-after=5 90 dbus-run-session -- "$@" >"$output" 2>&1 || status=$?
    ;;
no-bus)
    unset DBUS_SESSION_BUS_ADDRESS
    timeout --kill-after=5 90 "$@" >"$output" 2>&1 || status=$?
    ;;
dead-bus)
    export DBUS_SESSION_BUS_ADDRESS="unix:path=$scratch/nobody-listens-here"
    timeout --kill-after=5 90 "$@" >"$output" 2>&1 || status=$?
    ;;
*)
    echo "usage: $0 keyring|silent-bus|no-bus|dead-bus TEST [ARGS...]" >&2
    exit 2
    ;;
esac

cat "$output"
if grep -q 'QmSecret' "$output"; then
    echo "FAIL: a device token appeared in the output"
    status=1
fi
exit "$status"
