#!/usr/bin/env bash
# Installs what is missing, builds the kelo_bag command and runs its demo: a ten-second
# recording of simulated sensors, a live monitor query, the recorded bags' summary and a
# short playback. Extra arguments go to `kelo_bag demo` (a folder to record into).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target kelo_bag -j "$(nproc)"
exec build/release/tools/kelo_bag demo "$@"
