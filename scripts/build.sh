#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs what is missing, then configures and builds the whole tree in ./build.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)"
