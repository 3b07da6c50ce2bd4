#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds everything and runs every test through ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh
cd build
ctest --output-on-failure --timeout 300 -j"$(nproc)"
