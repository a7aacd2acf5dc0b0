#!/usr/bin/env bash
# Builds and runs every suite: native release, ASan+UBSan, the Windows build under wine, and the
# Windows client under wine against the Linux reference server.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --workflow --preset release
cmake --workflow --preset asan
export KEST_WINEPREFIX="${KEST_WINEPREFIX:-${TMPDIR:-/tmp}/kest-wineprefix}"
wineserver() { WINEDEBUG=-all WINEPREFIX="$KEST_WINEPREFIX" /usr/lib/wine/wineserver "$@"; }
wineboot() {
  WINEDEBUG=-all WINEPREFIX="$KEST_WINEPREFIX" /usr/lib/wine/wine64 wineboot "$@" </dev/null \
    >/dev/null 2>&1 || true
}
wineboot --init
wineserver -w || true
# One wine server for all the Windows runs that follow. Left to itself it exits a few seconds
# after its last program ends, and a program that starts while it exits fails before it runs
# ("wine client error:0: recvmsg: Connection reset by peer", seen once in a full run). The
# server's own programs (services, devices, desktop) live as long as it does, so they are started
# here, away from any test's output: started by a test, they would hold its output open, and
# ctest would wait for them until its time limit.
wineserver -p </dev/null >/dev/null 2>&1 || true
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
wineboot
cmake --workflow --preset windows
bash scripts/wine-e2e.sh build/release build/windows
