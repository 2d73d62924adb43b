#!/bin/sh
# Runs console.test.mjs with the arguments given; exit 77 (skipped) when node is missing. The
# test itself skips when playwright-core or chromium is missing.
if ! command -v node >/dev/null 2>&1; then
  echo "SKIP: node not found (run tests/console/setup.sh)"
  exit 77
fi
# The companion must not reach the developer's own session bus or secret store.
unset DBUS_SESSION_BUS_ADDRESS
exec node "$(dirname "$0")/console.test.mjs" "$@"
