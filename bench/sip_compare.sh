#!/usr/bin/env bash
# Builds and runs the SIP comparisons with kamailio and the retransmission clock:
#   bench/sip_compare.sh [arguments of sip_peer_compare...]
# e.g. bench/sip_compare.sh --soak-seconds 30 --users 2000 for a quick try.
# Wants two cores: the servers run on core 0, sipp on core 1. Not part of the tests.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh" bench
CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-2} \
  "$top/scripts/build.sh" default exchsrv sip_peer_compare sip_retransmit_clock >/dev/null
echo "== $(date -u '+%F %T') UTC on $(nproc) cores; load average $(cut -d' ' -f1-3 /proc/loadavg)"
"$top/build/bench/sip_peer_compare" "$@"
echo
echo "== Retransmissions (in-process, service queue on the real clock, pinned to core 0)"
taskset -c 0 "$top/build/bench/sip_retransmit_clock"
