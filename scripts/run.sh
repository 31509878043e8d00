#!/usr/bin/env bash
# Installs what is missing, builds, and starts exchsrv in the foreground on a working
# directory (default: ./run) with its default settings.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
"$top/scripts/build.sh" default exchsrv >/dev/null
workdir=${1:-$top/run}
mkdir -p "$workdir"
exec "$top/build/exchsrv/exchsrv" --no-daemon --dir "$workdir"
