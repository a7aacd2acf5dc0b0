#!/usr/bin/env bash
# Builds the programs and shows the client at work.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release --target kest_client kest_refserver >/dev/null
build/release/kest_client -v
