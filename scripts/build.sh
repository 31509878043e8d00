#!/usr/bin/env bash
# Configures and builds one flavour of the tree: build.sh [default|asan|tsan|fuzz] [targets...]
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
flavour=${1:-default}
shift || true
case "$flavour" in
  default) dir=build;       opts=() ;;
  asan)    dir=build-asan;  opts=(-DEXCH_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug) ;;
  tsan)    dir=build-tsan;  opts=(-DEXCH_TSAN=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  fuzz)    dir=build-fuzz;  opts=(-DEXCH_FUZZ=ON -DBUILD_TESTING=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
                                  -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14) ;;
  *) echo "unknown flavour $flavour" >&2; exit 2 ;;
esac
cmake -S "$top" -B "$top/$dir" -G Ninja "${opts[@]}" >/dev/null
if [ $# -gt 0 ]; then
  cmake --build "$top/$dir" --target "$@"
else
  cmake --build "$top/$dir"
fi
echo "$top/$dir"
