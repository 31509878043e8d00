#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite: the default build,
# the unit tests under address+undefined sanitizers, the concurrency tests and the running
# daemon under the thread sanitizer, and a short bounded run of every fuzz target.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh" test
jobs=$(nproc)

echo "== default build"
"$top/scripts/build.sh" default >/dev/null
(cd "$top/build" && ctest --output-on-failure -j "$jobs" --timeout 600)

echo "== address and undefined sanitizers"
"$top/scripts/build.sh" asan >/dev/null
(cd "$top/build-asan" && ctest --output-on-failure -j "$jobs" -L unit --timeout 900)

echo "== thread sanitizer"
"$top/scripts/build.sh" tsan >/dev/null
(cd "$top/build-tsan" && ctest --output-on-failure -j "$jobs" -L unit -R Threads --timeout 900)
# The daemon itself under the sanitizer, while SIP peers drive both of its halves; a
# report from any process fails the stage.
races=$(mktemp -d)
(cd "$top/build-tsan" && TSAN_OPTIONS="log_path=$races/race" ctest --output-on-failure -j 1 -L e2e \
  -R "SipAnswers|SipDaemonTest|RefreshesStayInTheServiceHalf|SubscriptionWith" --timeout 900)
if ls "$races"/race* >/dev/null 2>&1; then cat "$races"/race*; echo "data races in the daemon"; exit 1; fi
rm -rf "$races"

echo "== fuzz targets (short runs)"
"$top/scripts/build.sh" fuzz >/dev/null
for f in "$top"/build-fuzz/fuzz/*_fuzz; do
  [ -x "$f" ] || continue
  name=$(basename "$f")
  work=$(mktemp -d)
  cp -r "$top/fuzz/corpus/$name/." "$work/" 2>/dev/null || true
  "$f" -max_total_time="${FUZZ_SECONDS:-15}" -rss_limit_mb=2048 "$work" 2>"$work.log" || {
    tail -50 "$work.log"; echo "fuzz target $name failed"; exit 1; }
  rm -rf "$work" "$work.log"
  echo "$name: ok"
done
echo "all test stages passed"
