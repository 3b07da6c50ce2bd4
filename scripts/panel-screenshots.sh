#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Takes the maintenance panel's screenshot RUNS times in a row under Xvfb (on the embedded
# simulator) and counts the runs that wrote a picture. Exit 0 only when every run did;
# 77 (skipped) without xvfb-run.
#   scripts/panel-screenshots.sh [RUNS] [WxH] [OUT_DIR]
set -uo pipefail
cd "$(dirname "$0")/.."
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
