#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds everything and runs the demonstration.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
./build/bin/e1212ctl demo
