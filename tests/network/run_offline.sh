#!/bin/sh
# Runs a test with loopback as its only network: in a network namespace of its own, where a name
# lookup fails at once instead of asking the machine's DNS server, and with an /etc/hosts of its
# own in which direct.quillmar.test is 127.0.0.1. Tells the test with QUILLMAR_OFFLINE=1. Needs
# root or user namespaces; without them the test runs as it is and skips what needs this.
set -eu

if [ "${QUILLMAR_OFFLINE_INSIDE:-}" = 1 ]; then
  unset QUILLMAR_OFFLINE_INSIDE
  ip link set lo up
  hosts=$(mktemp)
  { cat /etc/hosts; echo "127.0.0.1 direct.quillmar.test"; } >"$hosts"
  mount --bind "$hosts" /etc/hosts
  status=0
  QUILLMAR_OFFLINE=1 "$@" || status=$?
  umount /etc/hosts || true
  rm -f "$hosts"
  exit "$status"
fi

for how in "--net --mount" "--user --map-root-user --net --mount"; do
  # shellcheck disable=SC2086 # the options are words
  if unshare $how sh -c 'ip link set lo up && mount --bind /etc/hosts /etc/hosts' 2>/dev/null; then
    QUILLMAR_OFFLINE_INSIDE=1 exec unshare $how "$0" "$@"
  fi
done
echo "run_offline.sh: cannot make a network namespace here; running the test without one" >&2
exec "$@"
