#!/usr/bin/env bash
# Bridge benchmark: round trips of small tool calls from the agent API through the dev service
# and the bridge to `quillmar-companion --headless`, next to the same calls in process; and one big
# search through the bridge next to `quillmar-companion call`; what keeping the previous version
# costs a 1 MiB overwrite. All numbers of one run.
#
#   bench/bridge/run.sh [--summary FILE] [BUILD_DIR]   (default build/bridge; built first if needed)
# Environment: CALLS (10000), DIRS (2000), FILES (100), REPEAT (5), QUILLMAR_BRIDGE_BUILD (the
# default build directory).
# --summary FILE also writes one tab-separated line per verdict to FILE: BENCHMARK, MEASURED,
# TARGET, PASS|MISS|INFO.
set -euo pipefail

root=$(cd "$(dirname "$0")/../.." && pwd)
summary=""
build=${QUILLMAR_BRIDGE_BUILD:-$root/build/bridge}
while [ $# -gt 0 ]; do
    case "$1" in
        --summary) summary=${2:?--summary needs a file}; shift 2 ;;
        --summary=*) summary=${1#*=}; shift ;;
        *) build=$1; shift ;;
    esac
done
work=$root/bench/.work/bridge
calls=${CALLS:-10000}
dirs=${DIRS:-2000}
files=${FILES:-100}
repeat=${REPEAT:-5}

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target quillmar-companion quillmar-devservice >/dev/null
cmake -S "$root/bench/bridge" -B "$build/bench-bridge" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build/bench-bridge" >/dev/null
bench=$build/bench-bridge/bridge-bench
companion=$build/src/app/quillmar-companion
devservice=$build/devservice/quillmar-devservice

mkdir -p "$work/Small" "$work/Big"
for i in 0 1 2 3 4 5 6 7 8 9; do echo "file $i" > "$work/Small/entry-$i.txt"; done
"$bench" mktree "$work/Big" "$dirs" "$files"

pids=()
cleanup() { for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done; }
trap cleanup EXIT

"$devservice" --port 0 > "$work/devservice.out" &
pids+=($!)
for _ in $(seq 100); do [ "$(wc -l < "$work/devservice.out")" -ge 2 ] && break; sleep 0.05; done
port=$(sed -n 's|^listening http://127.0.0.1:||p' "$work/devservice.out")
code=$(sed -n 's|^pairing-code ||p' "$work/devservice.out")
# The companion pairs and shares through its own command line, in a home of its own.
export HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config" XDG_DATA_HOME="$work/home/.local/share"
rm -rf "$HOME" && mkdir -p "$HOME"
unset DBUS_SESSION_BUS_ADDRESS
export QUILLMAR_API="http://127.0.0.1:$port"
"$companion" pair "$code" > /dev/null
"$companion" folders add "$work/Small" > /dev/null
"$companion" folders add "$work/Big" > /dev/null
device=$(curl -sf "$QUILLMAR_API/api/v1/agent/devices" | sed -n 's/.*"device_id":"\([^"]*\)".*/\1/p')

# Arguments: extra environment for the companion (VARIABLE=VALUE), if any.
start_companion() {
    : > "$work/companion.out"
    env "$@" "$companion" --headless < /dev/null > "$work/companion.out" &
    companion_pid=$!
    pids+=("$companion_pid")
    for _ in $(seq 100); do grep -q '^Connected to Quillmar$' "$work/companion.out" && return; sleep 0.05; done
    echo "the companion did not come online" >&2
    exit 1
}
stop_companion() { kill "$companion_pid"; wait "$companion_pid" 2>/dev/null || true; }

echo "== $(date -u +%Y-%m-%dT%H:%MZ), $(nproc) cores, $(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -1), load $(cut -d' ' -f1-3 /proc/loadavg)"
start_companion
echo "== $calls sequential local_list_files of a 10-entry folder"
"$bench" small "$port" "$device" "$work/Small" "$calls" | tee "$work/small.out"
echo "== local_search_files over $((dirs * files)) files ($dirs dirs x $files), no match, median of $repeat"
"$bench" search "$port" "$device" "$work/Big" "no-such-name-anywhere" "$repeat" "$companion" \
    | tee "$work/search.out"
stop_companion

echo "== the worker alone: $calls local_list_files through FileWorker and in process"
"$bench" worker "$build/src/app/quillmar-file-worker" "$work/Small" "$calls" | tee "$work/worker.out"

echo "== what keeping versions costs: 1 MiB overwrites through FileWorker, with and without"
mkdir -p "$work/Data"
"$bench" versions "$build/src/app/quillmar-file-worker" "$work/Data" "$((repeat * 6))" \
    | tee "$work/versions.out"

# The same small calls with the companion on Qt's own event loop instead of GLib's (see README).
start_companion QT_NO_GLIB=1
echo "== the small calls again, companion with QT_NO_GLIB=1"
"$bench" small "$port" "$device" "$work/Small" "$calls" | tee "$work/small-noglib.out"

# The driver's verdict lines ("...: VALUE ... (target ...): met|MISSED") as summary rows.
# BENCHMARK FILE PATTERN TARGET judged|info UNIT: the last line matching PATTERN in FILE.
summarize() {
    local line value result
    line=$(grep "$3" "$2" | tail -n 1) || { echo "no '$3' in $2" >&2; exit 2; }
    value=${line#*: }
    value=${value%% *}
    case "$line" in
        *": met") result=PASS ;;
        *": MISSED") result=MISS ;;
        *) result=INFO ;;
    esac
    if [ "$5" = info ]; then result=INFO; fi
    printf '%s\t%s\t%s\t%s\n' "$1" "$value$6" "$4" "$result" >>"$summary"
}
if [ -n "$summary" ]; then
    : >"$summary"
    summarize "bridge: overhead per small call, p50" "$work/small.out" '^bridge overhead at p50:' \
        "< 0.200 ms" judged " ms"
    summarize "bridge: big search, bridge / call command" "$work/search.out" '^bridge / call command:' \
        "<= 1.2" judged ""
    summarize "bridge: overhead per small call, QT_NO_GLIB=1" "$work/small-noglib.out" \
        '^bridge overhead at p50:' "-" info " ms"
    summarize "worker: hop per small call, p50" "$work/worker.out" '^worker hop at p50:' "-" info " ms"
    summarize "worker: start to first answer" "$work/worker.out" '^worker start to first answer:' \
        "-" info " ms"
    summarize "worker: memory while running" "$work/worker.out" '^worker memory:' "-" info " MiB"
    summarize "versions: 1 MiB overwrite, kept / not kept" "$work/versions.out" \
        '^versions on / off:' "-" info ""
fi
