#!/usr/bin/env bash
# Installs the Debian packages the project needs to build and test, when they are missing.
# Safe to run again: it does nothing once everything is there.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config git
  libcli11-dev libjsoncpp-dev libprotobuf-dev protobuf-compiler
  libzstd-dev liblz4-dev zlib1g-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev iproute2 util-linux
  liblcm-dev liblcm-bin tmux
)
# Node runs the independent MCAP reader of the interop tests; a machine may have it already.
if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
  packages+=(nodejs npm)
fi

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed"; then
    missing+=("$package")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  sudo="sudo"
fi
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
