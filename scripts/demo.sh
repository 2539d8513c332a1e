#!/usr/bin/env bash
# A headless tour: a private X screen, the capture service, Tolmesk and a sample
# window; one gesture around the window's "Save" button; then where the capture
# went. Runs with a throw-away HOME so your own captures and settings stay as
# they are. Called by ./x demo after the build.
set -euo pipefail
cd "$(dirname "$0")/.."
BIN=${TK_BUILD_DIR:-build}/bin
work=$(mktemp -d)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  [ "${TK_DEMO_KEEP:-0}" = 1 ] || rm -rf "$work"
}
trap cleanup EXIT
say() { printf '\033[1m--> %s\033[0m\n' "$*"; }
die() { printf 'demo: %s\n' "$*" >&2; exit 1; }

export HOME=$work/home XDG_RUNTIME_DIR=$work/run
mkdir -p "$HOME/TolmeskCaptures" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"
unset WAYLAND_DISPLAY
export QT_LOGGING_RULES="tolmesk.platform.debug=false"

say "virtual display"
Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp 3>"$work/display" 2>/dev/null &
pids+=($!)
for _ in $(seq 100); do [ -s "$work/display" ] && break; sleep 0.05; done
[ -s "$work/display" ] || die "Xvfb did not start"
export DISPLAY=:$(cat "$work/display")
# openbox's own Alt+Space (its window menu) would swallow the hotkey.
sed -e '/<keybind key="A-space">/,/<\/keybind>/d' /etc/xdg/openbox/rc.xml >"$work/openbox.xml"
openbox --config-file "$work/openbox.xml" >/dev/null 2>&1 &
pids+=($!)

say "session bus with accessibility on"
dbus-daemon --session --nofork --print-address=1 >"$work/bus" 2>/dev/null &
pids+=($!)
for _ in $(seq 100); do [ -s "$work/bus" ] && break; sleep 0.05; done
DBUS_SESSION_BUS_ADDRESS=$(head -n1 "$work/bus")
export DBUS_SESSION_BUS_ADDRESS
gdbus call --session --dest org.a11y.Bus --object-path /org/a11y/bus \
  --method org.freedesktop.DBus.Properties.Set org.a11y.Status IsEnabled "<true>" >/dev/null

if (exec 3<>/dev/tcp/127.0.0.1/3402) 2>/dev/null; then
  say "a capture service already listens on 3402: using it (it may refuse folders outside its captures root)"
else
  say "tolmesk-service on 127.0.0.1:3402"
  "$BIN/tolmesk-service" --data-dir "$work/service" --captures-root "$HOME/TolmeskCaptures" \
    --crash-dir "$work/crash" >"$work/service.log" 2>&1 &
  pids+=($!)
  for _ in $(seq 100); do grep -q listening "$work/service.log" && break; sleep 0.05; done
  grep -q listening "$work/service.log" || die "the service did not start: $(cat "$work/service.log")"
fi

say "sample window"
/usr/bin/python3 tests/fixtures/context/gtk_window.py >"$work/window" 2>"$work/window.err" &
pids+=($!)
for _ in $(seq 200); do grep -q READY "$work/window" && break; sleep 0.05; done
grep -q READY "$work/window" || die "the sample window did not come up: $(cat "$work/window.err")"
read -r sx sy sw sh < <(sed -n 's/^READY //p' "$work/window" |
  python3 -c 'import json, sys; print(*json.load(sys.stdin)["Save"])')

say "Tolmesk"
"$BIN/tolmesk" >"$work/app.log" 2>&1 &
pids+=($!)
for _ in $(seq 200); do grep -q "Tolmesk up" "$work/app.log" && break; sleep 0.05; done
grep -q "Tolmesk up" "$work/app.log" || die "Tolmesk did not start: $(cat "$work/app.log")"

say "hold Alt+Space, circle the Save button, let go"
cx=$((sx + sw / 2)) cy=$((sy + sh / 2))
xte "mousemove $cx $cy"
xdotool keydown alt keydown space
sleep 0.1
python3 - "$cx" "$cy" "$((sw / 2 - 8))" "$((sh / 2 - 7))" <<'EOF' | while read -r x y; do xte "mousemove $x $y"; sleep 0.01; done
import math, sys
cx, cy, rx, ry = map(int, sys.argv[1:])
for i in range(25):
    a = 2 * math.pi * i / 24
    print(int(cx + rx * math.cos(a)), int(cy + ry * math.sin(a)))
EOF
xdotool keyup space keyup alt

for _ in $(seq 200); do grep -q "capture written" "$work/app.log" && break; sleep 0.05; done
dir=$(sed -n 's/.*capture written //p' "$work/app.log" | head -n1)
[ -n "$dir" ] || die "no capture was written: $(cat "$work/app.log")"
id=$(basename "$dir")
echo
echo "capture folder: $dir"
ls -l "$dir"
echo
echo "its context record (element under the circle):"
python3 -c 'import json, sys; c = json.load(open(sys.argv[1])); print(json.dumps(c.get("ax", {}).get("lassoAncestor"), indent=2))' "$dir/context.json"
echo
echo "its service record: http://127.0.0.1:3402/api/captures/$id"
for _ in $(seq 100); do
  curl -sf "http://127.0.0.1:3402/api/captures/$id" -o "$work/record" && break
  sleep 0.1
done
if [ -s "$work/record" ]; then
  python3 -m json.tool "$work/record"
else
  echo "(the service has no record of it)"
fi
echo
if [ "${TK_DEMO_KEEP:-0}" = 1 ]; then
  echo "Kept: $work"
else
  echo "The demo's folders live in a temporary HOME and are removed now (TK_DEMO_KEEP=1 keeps"
  echo "them); ./x run is the real thing."
fi
