#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks to build, test and demo the project.
set -euo pipefail
SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq \
  cmake ninja-build g++ clang libclang-rt-14-dev ccache libgtest-dev libgmock-dev libbenchmark-dev \
  g++-mingw-w64-x86-64-posix wine64 python3 >/dev/null
