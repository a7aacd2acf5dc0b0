#!/usr/bin/env bash
# Builds and runs every suite: native release, ASan+UBSan, the Windows build under wine, and the
# Windows client under wine against the Linux reference server.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --workflow --preset release
cmake --workflow --preset asan
export KEST_WINEPREFIX="${KEST_WINEPREFIX:-${TMPDIR:-/tmp}/kest-wineprefix}"
wineserver() { WINEDEBUG=-all WINEPREFIX="$KEST_WINEPREFIX" /usr/lib/wine/wineserver "$@"; }
WINEDEBUG=-all WINEPREFIX="$KEST_WINEPREFIX" /usr/lib/wine/wine64 wineboot --init >/dev/null 2>&1 || true
wineserver -w || true
# One wine server for all the Windows runs that follow. Left to itself it exits a few seconds
# after its last program ends, and a program that starts while it exits fails before it runs
# ("wine client error:0: recvmsg: Connection reset by peer", seen once in a full run).
wineserver -p || true
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
cmake --workflow --preset windows
bash scripts/wine-e2e.sh build/release build/windows
