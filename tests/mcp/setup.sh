#!/usr/bin/env bash
# Installs what the MCP test needs: Node.js and npm when they are missing, and the official
# TypeScript SDK of the Model Context Protocol (pinned in package-lock.json) into
# tests/mcp/node_modules. Idempotent.
set -euo pipefail
cd "$(dirname "$0")"

packages=()
command -v node >/dev/null 2>&1 || packages+=(nodejs)
command -v npm >/dev/null 2>&1 || packages+=(npm)
if [ ${#packages[@]} -gt 0 ]; then
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  echo "Installing: ${packages[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${packages[@]}"
fi

installed=node_modules/@modelcontextprotocol/sdk/package.json
wanted=$(node -p 'require("./package-lock.json").packages["node_modules/@modelcontextprotocol/sdk"].version')
if [ -f "$installed" ] && [ "$(node -p "require('./$installed').version")" = "$wanted" ]; then
  exit 0
fi
npm ci --no-audit --no-fund --ignore-scripts
