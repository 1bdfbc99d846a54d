#!/bin/sh
# Runs a command in a private network namespace that has nothing but loopback, so a test
# can use UDP (multicast included) without a datagram leaving this machine, and tests
# running side by side never share a port. The command also gets a private mount
# namespace, in which it may mount small file systems (a full disk) and read-only folders
# that nobody else sees. The command's exit code is passed through.
#
#   tests/run_in_netns.sh build/dev/tests/udp_cast_server_test --gtest_filter=...
#
# Needs root, or unprivileged user namespaces (then the caller is root inside only).
set -eu

inside_marker=--kelo-inside-private-netns

if [ "$#" -eq 0 ] || [ "$1" = "$inside_marker" -a "$#" -eq 1 ]; then
  echo "usage: $0 command [args...]" >&2
  exit 2
fi

if [ "$1" != "$inside_marker" ]; then
  if ! command -v unshare >/dev/null 2>&1; then
    echo "$0: unshare (util-linux) is needed to isolate the test's network" >&2
    exit 1
  fi
  user=""
  [ "$(id -u)" -eq 0 ] || user=--map-root-user
  # Mounts made inside stay inside. In a chroot "/" is no mount point and cannot be made
  # private; there the namespace keeps the parent's propagation, and the tests' mounts,
  # which they undo themselves, may be seen outside while they last.
  propagation=private
  unshare --mount $user --propagation private true 2>/dev/null || propagation=unchanged
  exec unshare --net --mount $user --propagation $propagation -- /bin/sh "$0" "$inside_marker" "$@"
fi
shift

ip link set lo up
ip link set lo multicast on
# Multicast sent without a chosen interface follows the routes: keep it on loopback.
ip route replace 224.0.0.0/4 dev lo
exec "$@"
