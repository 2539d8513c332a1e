#!/usr/bin/env bash
# Focus privacy on a 3840x2160 screenshot: ours against libvips and ImageMagick
# at the same sigma, each reading and writing PNG as it does by itself.
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh
work=$(mktemp -d)
trap 'rm -rf "$work" "$XDG_RUNTIME_DIR"' EXIT
SIGMA=24
"$BIN/blur_timing" --make 3840 2160 "$work/shot.png"
read -r _ raw < <("$BIN/blur_timing" --file "$work/shot.png" | grep blur-raw)
read -r _ whole < <("$BIN/blur_timing" --file "$work/shot.png" | grep whole-file)
echo "Blur of a 3840x2160 screenshot, sigma $SIGMA (ms, median)"
printf '%-40s %10s\n' "tolmesk, blur alone (raw pixels)" "$raw"
printf '%-40s %10s\n' "tolmesk, PNG in -> blurred PNG out" "$whole"
t=()
for _ in 1 2 3; do t+=("$(ms_of vips gaussblur "$work/shot.png" "$work/vips.png" $SIGMA)"); done
vips=$(printf '%s\n' "${t[@]}" | median)
printf '%-40s %10s\n' "vips gaussblur" "$vips"
printf '%-40s %10s\n' "convert -blur 0x$SIGMA" "$(ms_of convert "$work/shot.png" -blur 0x$SIGMA "$work/im.png")"
if [ "${FULL:-1}" = 1 ]; then
  printf '%-40s %10s\n' "convert -gaussian-blur 0x$SIGMA (once)" "$(ms_of convert "$work/shot.png" -gaussian-blur 0x$SIGMA "$work/im2.png")"
fi
awk -v o="$whole" -v v="$vips" 'BEGIN { printf "  tolmesk end to end is %.1fx faster than vips (target >= 2x)\n", v / o }'
