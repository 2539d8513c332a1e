#!/usr/bin/env bash
# tolmesk-service holding 10 000 captures: the list and health endpoints under
# wrk, beside nginx serving the very same bodies as static files (our ceiling);
# then the time from ingest to listed for a 3840x2160 capture.
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh
work=$(mktemp -d)
trap 'cleanup; rm -rf "$work" "$XDG_RUNTIME_DIR"' EXIT
N=${N:-10000}
DURATION=${DURATION:-8s}

free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
wait_port() {
  for _ in $(seq 200); do (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0; sleep 0.05; done
  echo "nothing listens on $1" >&2
  return 1
}

port=$(free_port)
mkdir -p "$work/data" "$work/root" "$work/crash" "$work/nginx/www/api"
"$BIN/tolmesk-service" --port "$port" --data-dir "$work/data" --captures-root "$work/root" \
  --crash-dir "$work/crash" >"$work/service.log" 2>&1 &
PIDS+=($!)
wait_port "$port"

# Folders with a context record (no screenshot: only the rows matter here),
# handed over by a few keep-alive clients at once.
python3 - "$work/root" "$port" "$N" <<'EOF'
import http.client, json, os, sys, threading, uuid
root, port, n = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
words = "the pay button does nothing when I click it and the list is empty".split()
dirs = []
for i in range(n):
    cid = str(uuid.uuid4())
    d = os.path.join(root, cid)
    os.mkdir(d)
    ctx = {"id": cid, "startedAt": "2026-11-%02dT10:%02d:%02dZ" % (1 + i % 28, i // 60 % 60, i % 60),
           "endedAt": "2026-11-01T10:00:01Z", "displayScale": 1,
           "app": {"bundleId": "org.example.Notes", "name": "Notes"},
           "window": {"title": "Checkout %d" % i},
           "pointer": {"path": [[95, 95, 0], [185, 95, 0.1], [185, 135, 0.2], [95, 135, 0.3], [96, 96, 0.4]],
                       "downAt": [95, 95]},
           "ax": {"atPoint": [{"role": "push button", "title": "Pay", "value": "", "x": 100, "y": 100, "w": 80, "h": 30}],
                  "permission": "granted"},
           "audioLevels": [0.1, 0.4, 0.8, 0.3, 0.05]}
    with open(os.path.join(d, "context.json"), "w") as f:
        json.dump(ctx, f)
    with open(os.path.join(d, "transcript.txt"), "w") as f:
        f.write(" ".join(words[j % len(words)] for j in range(i % 7, i % 7 + 8)))
    dirs.append(d)
failed = []
def feed(part):
    c = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
    for d in part:
        c.request("POST", "/api/ingest", json.dumps({"dir": d}), {"Content-Type": "application/json"})
        r = c.getresponse()
        body = r.read()
        if r.status != 200 or b'"ingested":true' not in body:
            failed.append(body[:200])
threads = [threading.Thread(target=feed, args=(dirs[k::4],)) for k in range(4)]
for t in threads: t.start()
for t in threads: t.join()
if failed:
    sys.exit("%d ingests failed, first: %r" % (len(failed), failed[0]))
EOF

curl -sf "http://127.0.0.1:$port/api/captures" -o "$work/nginx/www/api/captures"
curl -sf "http://127.0.0.1:$port/api/health" -o "$work/nginx/www/api/health"
stored=$(python3 -c 'import json, sys; print(len(json.load(open(sys.argv[1]))))' "$work/nginx/www/api/captures")
[ "$stored" -ge "$N" ] || { echo "only $stored of $N captures listed" >&2; exit 1; }

nport=$(free_port)
user=""
[ "$(id -u)" -eq 0 ] && user="user root;"
cat >"$work/nginx/nginx.conf" <<EOF
$user
worker_processes 2;
daemon off;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
events { worker_connections 256; }
http {
  access_log off;
  client_body_temp_path $work/nginx/tmp-body;
  proxy_temp_path $work/nginx/tmp-proxy;
  fastcgi_temp_path $work/nginx/tmp-fastcgi;
  uwsgi_temp_path $work/nginx/tmp-uwsgi;
  scgi_temp_path $work/nginx/tmp-scgi;
  types { }
  default_type application/json;
  server { listen 127.0.0.1:$nport; root $work/nginx/www; }
}
EOF
nginx -c "$work/nginx/nginx.conf" -p "$work/nginx" -e "$work/nginx/error.log" 2>/dev/null &
PIDS+=($!)
wait_port "$nport"

# wrk URL -> "requests/s p50-ms p99-ms"
measure() {
  wrk -t2 -c16 -d"$DURATION" --latency "$1" | awk '
    function ms(v) { if (v ~ /us$/) return v / 1000; if (v ~ /ms$/) return v + 0; if (v ~ /s$/) return v * 1000; return v }
    $1 == "50%" { p50 = ms($2) } $1 == "99%" { p99 = ms($2) } $1 == "Requests/sec:" { rps = $2 }
    END { printf "%d %.2f %.2f\n", rps, p50, p99 }'
}

kib=$(( $(stat -c %s "$work/nginx/www/api/captures") / 1024 ))
echo "tolmesk-service with $stored captures (list body $kib KiB), wrk -t2 -c16 -d$DURATION"
printf '%-16s %10s %8s %8s %10s %8s %8s %9s %8s\n' endpoint "ours/s" "p50 ms" "p99 ms" "nginx/s" "p50 ms" "p99 ms" "of nginx" target
for e in captures:30 health:50; do
  name=${e%%:*} goal=${e##*:}
  read -r ours op50 op99 < <(measure "http://127.0.0.1:$port/api/$name")
  read -r ngx np50 np99 < <(measure "http://127.0.0.1:$nport/api/$name")
  awk -v n="/api/$name" -v o="$ours" -v a="$op50" -v b="$op99" -v x="$ngx" -v c="$np50" -v d="$np99" -v g="$goal" 'BEGIN {
    share = 100 * o / x
    printf "%-16s %10d %8.2f %8.2f %10d %8.2f %8.2f %8.0f%% %4s%% %s\n", n, o, a, b, x, c, d, share, ">=" g, (share >= g ? "met" : "NOT MET") }'
done

# Ingest to listed: the POST answers once thumbnail and annotation are written;
# the capture counts as listed when its record and thumbnail are served.
"$BIN/blur_timing" --make 3840 2160 "$work/shot4k.png" 2>/dev/null
python3 - "$work/root" "$port" "$work/shot4k.png" <<'EOF'
import http.client, json, os, shutil, statistics, sys, time, uuid
root, port, shot = sys.argv[1], int(sys.argv[2]), sys.argv[3]
times = []
for i in range(7):
    cid = str(uuid.uuid4())
    d = os.path.join(root, cid)
    os.mkdir(d)
    shutil.copy(shot, os.path.join(d, "shot.png"))
    ctx = {"id": cid, "startedAt": "2026-11-23T10:00:00Z", "endedAt": "2026-11-23T10:00:01Z",
           "displayScale": 1, "app": {"bundleId": "org.example.Notes", "name": "Notes"},
           "window": {"title": "Checkout"},
           "pointer": {"path": [[900, 500, 0], [1500, 500, 0.1], [1500, 900, 0.2], [900, 900, 0.3], [905, 505, 0.4]],
                       "downAt": [900, 500]},
           "ax": {"atPoint": [], "permission": "denied"}}
    with open(os.path.join(d, "context.json"), "w") as f:
        json.dump(ctx, f)
    c = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
    t0 = time.perf_counter()
    c.request("POST", "/api/ingest", json.dumps({"dir": d}), {"Content-Type": "application/json"})
    r = c.getresponse(); r.read()
    while True:
        c.request("GET", "/api/captures/" + cid); a = c.getresponse(); a.read()
        c.request("GET", "/thumb/" + cid); b = c.getresponse(); b.read()
        if a.status == 200 and b.status == 200:
            break
        time.sleep(0.002)
    times.append((time.perf_counter() - t0) * 1000)
med, worst = statistics.median(times), max(times)
print("ingest to listed, 3840x2160 capture: median %.0f ms, max %.0f ms (target < 300 ms: %s)"
      % (med, worst, "met" if med < 300 else "NOT MET"))
EOF
