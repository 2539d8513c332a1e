# Shared by the compare_*.sh scripts: a private X server and clean-up.
BUILD=${TK_BUILD_DIR:-build}
BIN=$BUILD/bin
PIDS=()
export QT_LOGGING_RULES="tolmesk.info=false"
XDG_RUNTIME_DIR=$(mktemp -d)
export XDG_RUNTIME_DIR
cleanup() { for p in "${PIDS[@]}"; do kill "$p" 2>/dev/null; done; wait 2>/dev/null; }
trap 'cleanup; rm -rf "$XDG_RUNTIME_DIR"' EXIT

# start_x WxH: sets DISPLAY to a fresh Xvfb.
start_x() {
  local f
  f=$(mktemp)
  Xvfb -displayfd 3 -screen 0 "$1x24" -nolisten tcp 3>"$f" 2>/dev/null &
  PIDS+=($!)
  for _ in $(seq 100); do [ -s "$f" ] && break; sleep 0.05; done
  export DISPLAY=:$(cat "$f")
  rm -f "$f"
}

stop_x() { cleanup; PIDS=()
export QT_LOGGING_RULES="tolmesk.info=false"
XDG_RUNTIME_DIR=$(mktemp -d)
export XDG_RUNTIME_DIR; }

# median of numbers on stdin
median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

# ms_of CMD...: wall milliseconds of one run
ms_of() {
  local s e
  s=$(date +%s%N)
  "$@" >/dev/null 2>&1
  e=$(date +%s%N)
  echo $(( (e - s) / 1000000 ))
}
