#!/usr/bin/env bash
# Builds everything and runs every test under Wine.
set -euo pipefail
cd "$(dirname "$0")"
scripts/build.sh
cd build
ctest --output-on-failure -j2 --timeout 300
