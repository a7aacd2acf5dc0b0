#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks to build, test and demo the project.
#   bash scripts/install-deps.sh         # everything: tests, sanitizers, Windows build, fuzzing,
#                                        # the Debian package and its checks
#   bash scripts/install-deps.sh demo    # only what the demo needs: a compiler and CMake
set -euo pipefail
SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
# libedit-dev: line editing in the client's shell (without it the shell reads plain lines).
packages=(cmake ninja-build g++ ccache libedit-dev)
if [ "${1:-all}" != demo ]; then
  packages+=(clang libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev
             g++-mingw-w64-x86-64-posix wine64 python3
             dpkg-dev file man-db bash-completion)
fi
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq "${packages[@]}" >/dev/null
