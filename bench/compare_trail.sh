#!/usr/bin/env bash
# One more trail point, painted, after 100 / 1 000 / 10 000 points (no compositor).
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh
echo "Trail: cost of one new sample (target: flat within 2x, under 0.5 ms)"
start_x 1920x1080
"$BIN/bench_trail" --benchmark_min_time=0.5 2>/dev/null | grep -E 'addPoint|Benchmark'
