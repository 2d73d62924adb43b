# shellcheck shell=bash
# shellcheck disable=SC2154 # repo, work, session_name and session_tag come from the caller
# What bench/idle/run and bench/startup/run share: the build, a quillmar-devservice on a free
# loopback port, a companion paired with it in a throwaway home, and a private X display with a
# tray host for the desktop application. Sourced, not run. Everything started here is stopped by
# session_cleanup, which the sourcing script installs as its EXIT trap.
#
# The caller sets `repo` (the checkout), `work` (logs), `session_name` (for messages) and
# `session_tag` (one word, for the scratch folder's name) before sourcing.

session_pids=()
session_dir=""
display=""
port=""
device=""
companion=""
devservice=""
# The environment of every companion command: a throwaway home and XDG folders, and a session
# bus address nobody listens on, so that the token goes to the file store and, with a display,
# no bus is launched on the side.
sandbox_env=()

die() {
    echo "$session_name: $*" >&2
    exit 2
}
note() { printf '%s\n' "$*" >&2; }

# session_alive PID: whether the process runs (a zombie does not count).
session_alive() {
    local state
    state=$(sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f1) || return 1
    [ -n "$state" ] && [ "$state" != Z ]
}

session_cleanup() {
    local pid
    for pid in "${session_pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in "${session_pids[@]}"; do wait "$pid" 2>/dev/null || true; done
    session_pids=()
    if [ -n "$session_dir" ]; then rm -rf -- "$session_dir"; fi
}

# session_build BUILD_DIR: configures (Release, tests off) when needed and builds the companion
# and the dev service; sets `companion` and `devservice`.
session_build() {
    local build=$1
    if [ ! -f "$build/build.ninja" ]; then
        note "configuring $build (Release)"
        cmake -S "$repo" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
            -DQUILLMAR_BUILD_TESTS=OFF >/dev/null || die "cmake configure failed"
    fi
    note "building quillmar-companion and quillmar-devservice in $build"
    cmake --build "$build" --target quillmar-companion quillmar-devservice >/dev/null \
        || die "build failed"
    companion=$build/src/app/quillmar-companion
    devservice=$build/devservice/quillmar-devservice
    [ -x "$companion" ] || die "no binary at $companion"
    [ -x "$devservice" ] || die "no binary at $devservice"
}

# session_start: the dev service, pairing, and one shared folder with a few files. Sets `port`
# and `device`.
session_start() {
    session_dir=$(mktemp -d "${TMPDIR:-/tmp}/quillmar-$session_tag.XXXXXX")
    mkdir -p "$session_dir/home" "$session_dir/config" "$session_dir/data" "$session_dir/cache" \
        "$session_dir/Shared/notes"
    mkdir -m 0700 "$session_dir/runtime"
    local i
    for ((i = 0; i < 20; i++)); do printf 'note %d\n' "$i" >"$session_dir/Shared/notes/note-$i.txt"; done

    "$devservice" --port 0 >"$work/devservice.log" 2>&1 &
    session_pids+=($!)
    for _ in $(seq 600); do # up to 30 s: a fresh build starts slowly on a busy machine
        [ "$(grep -c '' "$work/devservice.log")" -ge 2 ] && break
        sleep 0.05
    done
    port=$(sed -n 's|^listening http://127.0.0.1:||p' "$work/devservice.log")
    local code
    code=$(sed -n 's|^pairing-code ||p' "$work/devservice.log")
    if [ -z "$port" ] || [ -z "$code" ]; then
        die "the dev service did not start (see $work/devservice.log)"
    fi

    sandbox_env=(env -u WAYLAND_DISPLAY -u DISPLAY
        DBUS_SESSION_BUS_ADDRESS="unix:path=$session_dir/nobody-listens-here"
        HOME="$session_dir/home" XDG_CONFIG_HOME="$session_dir/config"
        XDG_DATA_HOME="$session_dir/data" XDG_CACHE_HOME="$session_dir/cache"
        XDG_RUNTIME_DIR="$session_dir/runtime" QUILLMAR_API="http://127.0.0.1:$port")
    "${sandbox_env[@]}" "$companion" pair "$code" >"$work/pair.log" 2>&1 \
        || die "pairing failed: $(cat "$work/pair.log")"
    "${sandbox_env[@]}" "$companion" folders add "$session_dir/Shared" >/dev/null \
        || die "folders add failed"
    device=$(curl -sf "http://127.0.0.1:$port/api/v1/agent/devices" \
        | sed -n 's/.*"device_id":"\([^"]*\)".*/\1/p')
    [ -n "$device" ] || die "the dev service knows no device after pairing"
}

# session_online: whether the dev service reports the device online now.
session_online() {
    curl -sf "http://127.0.0.1:$port/api/v1/agent/devices/$device" | grep -q '"online":true'
}

# session_wait_online SECONDS PID: 0 once the device is online, 1 when PID ended or time ran out.
session_wait_online() {
    local limit=$1 pid=$2 i
    for ((i = 0; i < limit * 20; i++)); do
        session_online && return 0
        session_alive "$pid" || return 1
        sleep 0.05
    done
    return 1
}

# session_stop PID: SIGTERM, then SIGKILL after 5 s; waits for it.
session_stop() {
    local pid=$1 i
    kill "$pid" 2>/dev/null || true
    for ((i = 0; i < 100; i++)); do
        session_alive "$pid" || break
        sleep 0.05
    done
    if session_alive "$pid"; then kill -9 "$pid" 2>/dev/null || true; fi
    wait "$pid" 2>/dev/null || true
    for ((i = 0; i < 200; i++)); do
        session_online || return 0
        sleep 0.05
    done
}

# session_start_display: a private Xvfb (its display number chosen by the server, -displayfd)
# and trayer as the tray host. Sets `display`.
session_start_display() {
    command -v Xvfb >/dev/null || die "Xvfb is needed for the desktop application (scripts/setup)"
    command -v trayer >/dev/null || die "trayer is needed for the desktop application (scripts/setup)"
    command -v xwininfo >/dev/null || die "xwininfo (x11-utils) is needed to check the window"
    : >"$work/display"
    Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp -noreset \
        3>"$work/display" >"$work/xvfb.log" 2>&1 &
    session_pids+=($!)
    local i
    for ((i = 0; i < 300; i++)); do
        grep -q '^[0-9][0-9]*$' "$work/display" && break
        sleep 0.05
    done
    grep -q '^[0-9][0-9]*$' "$work/display" || die "Xvfb did not start (see $work/xvfb.log)"
    display=":$(cat "$work/display")"
    DISPLAY=$display trayer --edge top --align right --SetDockType true --widthtype request \
        --height 28 >"$work/trayer.log" 2>&1 &
    session_pids+=($!)
    for ((i = 0; i < 200; i++)); do
        DISPLAY=$display xwininfo -root -tree 2>/dev/null | grep -q '("panel" "trayer")' && return
        sleep 0.05
    done
    die "trayer did not come up on $display (see $work/trayer.log)"
}

# session_icon_docked: whether the companion's tray icon sits in trayer's panel.
session_icon_docked() {
    DISPLAY=$display xwininfo -root -tree 2>/dev/null \
        | grep -q '("quillmar-companion" "Quillmar OS")'
}

# session_open_windows: how many of the companion's top-level windows are on screen.
session_open_windows() {
    local id count=0
    for id in $(DISPLAY=$display xwininfo -root -children 2>/dev/null \
        | sed -n 's/^ *\(0x[0-9a-f]*\) "Quillmar OS".*/\1/p'); do
        if DISPLAY=$display xwininfo -id "$id" 2>/dev/null | grep -q 'Map State: IsViewable'; then
            count=$((count + 1))
        fi
    done
    echo "$count"
}
