#!/usr/bin/env bash
# Builds and runs every suite: native release, ASan+UBSan, the Windows build under wine, and the
# Windows client under wine against the Linux reference server.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --workflow --preset release
cmake --workflow --preset asan
export KEST_WINEPREFIX="${KEST_WINEPREFIX:-${TMPDIR:-/tmp}/kest-wineprefix}"
WINEDEBUG=-all WINEPREFIX="$KEST_WINEPREFIX" /usr/lib/wine/wine64 wineboot --init >/dev/null 2>&1 || true
WINEDEBUG=-all WINEPREFIX="$KEST_WINEPREFIX" /usr/lib/wine/wineserver -w || true
cmake --workflow --preset windows
bash scripts/wine-e2e.sh build/release build/windows
