#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Takes the maintenance panel's screenshot RUNS times in a row under Xvfb (on the embedded
# simulator) and counts the runs that wrote a picture. Exit 0 only when every run did;
# 77 (skipped) without xvfb-run.
#   scripts/panel-screenshots.sh [RUNS] [WxH] [OUT_DIR]
# With "docs", draws the pictures of docs/ instead (offscreen, about 70 s): a simulator whose
# inputs change, two outputs on and one blinking, seen for a minute so the timelines fill.
#   scripts/panel-screenshots.sh docs
set -uo pipefail
cd "$(dirname "$0")/.."

if [ "${1:-}" = docs ]; then
  ctl=${E1212CTL:-build/bin/e1212ctl}
  [ -x "$ctl" ] || { echo "$ctl is missing: build first"; exit 1; }
  port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  # The inputs' pattern, one step a second: DI0 on, DI2 a slow square wave, DI3 a short pulse
  # every 10 s, DI5 bouncing now and then.
  feed() {
    for t in $(seq 0 80); do
      echo "DI2=$(( t / 4 % 2 ))"
      [ $(( t % 10 )) -eq 3 ] && echo "DI3=1"
      [ $(( t % 10 )) -eq 4 ] && echo "DI3=0"
      if [ $(( t % 15 )) -eq 7 ]; then
        for v in 1 0 1 0 1; do echo "DI5=$v"; sleep 0.25; done
      fi
      sleep 1
    done
  }
  feed | "$ctl" simulate --listen "127.0.0.1:$port" --input DI0=1 >/dev/null &
  sim=$!
  trap 'kill $sim 2>/dev/null' EXIT
  dev=(--device "127.0.0.1:$port")
  until "$ctl" "${dev[@]}" get DI0 >/dev/null 2>&1; do sleep 0.2; done
  "$ctl" "${dev[@]}" set DO4 1 >/dev/null
  "$ctl" "${dev[@]}" blink DO6 --on 2500 --off 1500 1 >/dev/null
  ( sleep 20; "$ctl" "${dev[@]}" set DO1 1 >/dev/null ) &
  status=0
  export E1212_PANEL_SCREENSHOT_AFTER_MS=62000
  "$ctl" "${dev[@]}" panel --size 800x480 --screenshot docs/maintenance-panel.png -platform offscreen & p1=$!
  "$ctl" "${dev[@]}" panel --size 1920x1080 --screenshot docs/maintenance-panel-1920x1080.png -platform offscreen & p2=$!
  wait $p1 || status=1
  wait $p2 || status=1
  exit $status
fi
runs=${1:-10}
size=${2:-800x480}
out=${3:-$(mktemp -d)}
ctl=${E1212CTL:-build/bin/e1212ctl}
command -v xvfb-run >/dev/null || { echo "xvfb-run is missing (apt-get install xvfb xauth): skipped"; exit 77; }
[ -x "$ctl" ] || { echo "$ctl is missing: build first"; exit 1; }
mkdir -p "$out"
passed=0
failed=0
for i in $(seq 1 "$runs"); do
  file="$out/panel-$i.png"
  rm -f "$file"
  # -a: a free display number for each run; the X server ends with the run.
  if timeout 60 xvfb-run -a -s "-screen 0 3840x2160x24" env -u QT_QPA_PLATFORM \
       "$ctl" panel --size "$size" --screenshot "$file" >"$out/run-$i.log" 2>&1 && [ -s "$file" ]; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "run $i failed:"; tail -n 5 "$out/run-$i.log"
  fi
done
echo "screenshots in $out"
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
