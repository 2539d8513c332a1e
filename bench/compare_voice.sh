#!/usr/bin/env bash
# Voice: our in-process recogniser against Debian's pocketsphinx_continuous on
# the same recordings, and the recorder's own costs, with a private sound server.
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh
work=$(mktemp -d)
trap 'cleanup; rm -rf "$work" "$XDG_RUNTIME_DIR"' EXIT
flite -voice slt -t "this button does nothing when I click it" -o "$work/short.wav"
flite -voice slt -t "the save dialog closes before I can type the file name and then the list is empty" -o "$work/longer.wav"
flite -voice slt -t "when I drag the window to the second screen the toolbar stays behind and the menu opens on the wrong side" -o "$work/five-seconds.wav"
echo "Transcription (pocketsphinx, Debian's en-us model; RTF = time / audio length)"
"$BIN/voice_timing" --transcribe "$work/short.wav" "$work/longer.wav" "$work/five-seconds.wav" | sed 's/^/  tolmesk  /'
for f in short longer five-seconds; do
  s=$(date +%s%N)
  text=$(pocketsphinx_continuous -infile "$work/$f.wav" -logfn /dev/null 2>/dev/null | tail -1)
  e=$(date +%s%N)
  echo "  pocketsphinx_continuous  $f.wav  $(( (e - s) / 1000000 )) ms  $text"
done

echo "Recorder (default source of a private PulseAudio, silence playing)"
pulseaudio --daemonize=no --exit-idle-time=-1 --system=false --disallow-exit -n \
  --load=module-native-protocol-unix \
  --load="module-null-sink sink_name=cap sink_properties=device.description=cap" \
  --load=module-always-sink >/dev/null 2>&1 &
PIDS+=($!)
for _ in $(seq 100); do pactl info >/dev/null 2>&1 && break; sleep 0.05; done
pactl set-default-source cap.monitor
bash -c 'exec pacat --playback --device=cap --raw --format=s16le --rate=16000 --channels=1 --latency-msec=20 < /dev/zero' &
PIDS+=($!)
sleep 0.5
timeout 3 parecord --device=cap.monitor --latency-msec=20 "$work/warm.wav" || true
start_x 1280x800
"$BIN/voice_timing" --record | sed 's/^/  /'
