#!/usr/bin/env bash
# Our whole capture (grab, PNG, context record, hand-off received) against
# common screenshot tools writing the same full-screen PNG, same screen, same run.
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh
REPS=${REPS:-5}
out=$(mktemp -d)
echo "Full-screen capture to PNG (median of $REPS; a desktop-like picture fills the screen)"
printf '%-22s %10s %10s %10s\n' tool size ms KiB
for size in 1920x1080 3840x2160; do
  start_x "$size"
  "$BIN/capture_timing" --show >/dev/null 2>&1 &
  PIDS+=($!)
  sleep 2
  line=$("$BIN/capture_timing" --reps "$REPS" | tail -1)
  ours=$(echo "$line" | awk '{print $2}')
  printf '%-22s %10s %10s %10s\n' "tolmesk (whole capture)" "$size" "$ours" "$(echo "$line" | awk '{print $4}')"
  "$BIN/capture_timing" --png 3 | while read -r name ms _ kib _; do
    printf '%-22s %10s %10s %10s\n' "$name" "$size" "$ms" "$kib"
  done
  best=""
  for tool in scrot maim import; do
    reps=$REPS
    [ "$tool" = import ] && reps=3
    times=()
    for _ in $(seq "$reps"); do
      rm -f "$out/t.png"
      case $tool in
        scrot) times+=("$(ms_of scrot -o "$out/t.png")") ;;
        maim) times+=("$(ms_of maim "$out/t.png")") ;;
        import) times+=("$(ms_of import -window root "$out/t.png")") ;;
      esac
    done
    m=$(printf '%s\n' "${times[@]}" | median)
    printf '%-22s %10s %10s %10s\n' "$tool" "$size" "$m" "$(( $(stat -c %s "$out/t.png") / 1024 ))"
    if [ -z "$best" ] || [ "$m" -lt "$best" ]; then best=$m; fi
  done
  verdict=$(awk -v o="$ours" -v b="$best" 'BEGIN { printf "%.2f of the fastest tool (target <= 0.50)", o / b }')
  echo "  $size: tolmesk at $verdict"
  stop_x
done
rm -rf "$out"
