#!/usr/bin/env bash
# Installs what the console's browser test needs: Debian's chromium, Node.js and npm when they
# are missing, and playwright-core (pinned in package-lock.json) into tests/console/node_modules.
# No browser is downloaded through npm. Idempotent.
set -euo pipefail
cd "$(dirname "$0")"

packages=()
command -v chromium >/dev/null 2>&1 || packages+=(chromium)
command -v node >/dev/null 2>&1 || packages+=(nodejs)
command -v npm >/dev/null 2>&1 || packages+=(npm)
if [ ${#packages[@]} -gt 0 ]; then
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  echo "Installing: ${packages[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${packages[@]}"
fi

installed=node_modules/playwright-core/package.json
wanted=$(node -p 'require("./package-lock.json").packages["node_modules/playwright-core"].version')
if [ -f "$installed" ] && [ "$(node -p "require('./$installed').version")" = "$wanted" ]; then
  exit 0
fi
npm ci --no-audit --no-fund --ignore-scripts
