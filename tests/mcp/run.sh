#!/bin/sh
# Runs mcp.test.mjs with the arguments given; exit 77 (skipped) when node or the SDK is missing
# (tests/mcp/setup.sh installs both).
here=$(dirname "$0")
if ! command -v node >/dev/null 2>&1; then
  echo "SKIP: node not found (run tests/mcp/setup.sh)"
  exit 77
fi
if [ ! -f "$here/node_modules/@modelcontextprotocol/sdk/package.json" ]; then
  echo "SKIP: the MCP SDK is not installed (run tests/mcp/setup.sh)"
  exit 77
fi
# The companion must not reach the developer's own session bus or secret store.
unset DBUS_SESSION_BUS_ADDRESS
exec node "$here/mcp.test.mjs" "$@"
