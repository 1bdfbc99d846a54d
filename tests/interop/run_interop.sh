#!/bin/bash
# Checks our bags with @mcap/core. (Files of other writers: mcap_conformance_test.)
# Usage: run_interop.sh <bag_interop_tool> <work dir>
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
tool="$1"
work="$2"
if [ ! -d "$here/node_modules/@mcap/core" ]; then
  echo "tests/interop/node_modules is missing: run 'npm ci' in tests/interop" >&2
  exit 1
fi
rm -rf "$work"
mkdir -p "$work/ours"
"$tool" write "$work/ours"
node "$here/check_bags.mjs" "$work/ours"
echo "interop: all checks passed"
