#!/usr/bin/env bash
# CPU and memory of an idle Tolmesk beside a minimal Qt tray program, same run.
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh
SECS=${IDLE_SECS:-60}
start_x 1920x1080
home=$(mktemp -d)
HOME=$home XDG_CONFIG_HOME=$home/.config DBUS_SESSION_BUS_ADDRESS=unix:path=$home/none \
  "$BIN/tolmesk" >/dev/null 2>&1 &
app=$!
PIDS+=($app)
"$BIN/minimal_tray" >/dev/null 2>&1 &
tray=$!
PIDS+=($tray)
sleep 3 # past start-up
cpu() { awk '{print $14 + $15}' "/proc/$1/stat"; }
mem() { awk -v k="$2" '$1 == k":" {printf "%.1f", $2 / 1024}' "/proc/$1/status"; }
a0=$(cpu $app); t0=$(cpu $tray)
sleep "$SECS"
a1=$(cpu $app); t1=$(cpu $tray)
hz=$(getconf CLK_TCK)
echo "Idle for ${SECS} s (CPU seconds used; resident MiB now and at peak)"
printf '%-14s %10s %10s %10s\n' program cpu_s rss_MiB peak_MiB
printf '%-14s %10s %10s %10s\n' tolmesk "$(awk -v d=$((a1 - a0)) -v h="$hz" 'BEGIN{printf "%.2f", d/h}')" "$(mem $app VmRSS)" "$(mem $app VmHWM)"
printf '%-14s %10s %10s %10s\n' minimal_tray "$(awk -v d=$((t1 - t0)) -v h="$hz" 'BEGIN{printf "%.2f", d/h}')" "$(mem $tray VmRSS)" "$(mem $tray VmHWM)"
rm -rf "$home"
