#!/bin/bash
# Our recorder against LCM's own logger on the same bus and the same traffic, in one run,
# inside a private network namespace (nothing leaves this machine):
#   raw     - 100 B payloads whose first bytes change with every message, 10,000 msg/s for
#             10 s, both recorders on the bus at once: the share of messages each logged;
#   1MB     - 1 MB messages at 50 msg/s for 6 s, each recorder alone: messages logged and
#             CPU time (user + system) per message;
#   ceiling - 1 MB messages for 3 s at each rate of a ladder, to `kelo_bag record` and to a
#             bare subscriber that only counts (bus_count), each alone: the highest rate
#             that each takes without losing a message, as the publisher achieved it. A rate
#             that loses is tried once more, so that one stall of the machine does not end
#             the ladder; the ladder ends at the first rate that loses twice;
#   pace    - 5 s of 1,000 msg/s recorded by both, then played back onto the bus by
#             `kelo_bag play --publish` and by `lcm-logplayer`: how late each message
#             arrives against its file's schedule (pace_probe), and the first message's.
#   bags    - bench/bag_peers: our bag files against the ROS 1 bag library on the same
#             payloads (write, describe, read; against write+fsync and dd as well).
# Prints each figure and the ratio ours / peer. Peers are measured where installed:
#   lcm-logger:  apt-get install liblcm-bin
#   ROS 1 bags:  apt-get install librosbag-storage-dev libstd-msgs-dev, then build the
#                release preset again (bench/bag_peers is built only where they are)
#
# BENCH_DIR (default /var/tmp) is where the bag files of 1 GB are written; BAGS=0 leaves
# the bag file peer out.
#   bench/peers.sh [RUNS]      (default 3; needs the release build with the benchmarks)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
if [ "${1:-}" != --inside ]; then exec "$root/tests/run_in_netns.sh" bash "$0" --inside "$@"; fi
shift
runs=${1:-3}
release=$root/build/release
kb=$release/tools/kelo_bag
publish=$release/tests/lcm_publish
count=$release/bench/lcmlog_count
pace=$release/bench/pace_probe
bus_count=$release/bench/bus_count
if [ "${BAGS:-1}" = 0 ]; then
  :
elif [ -x "$release/bench/bag_peers" ]; then
  mkdir -p "${BENCH_DIR:-/var/tmp}/kelo_bag_peers"
  "$release/bench/bag_peers" --dir "${BENCH_DIR:-/var/tmp}/kelo_bag_peers" --kelo_bag "$kb" --runs "$runs"
  rmdir "${BENCH_DIR:-/var/tmp}/kelo_bag_peers"
else
  echo "bench/bag_peers was not built (ROS 1 bag library not installed): no bag file peer" >&2
fi
for f in "$kb" "$publish" "$count" "$pace" "$bus_count"; do
  [ -x "$f" ] || { echo "missing $f: build the release preset first" >&2; exit 2; }
done
if ! command -v lcm-logger > /dev/null; then
  echo "lcm-logger is not installed (apt-get install liblcm-bin): nothing to compare with" >&2
  exit 2
fi
bus='udpm://239.255.76.67:7667?ttl=0'
export LCM_DEFAULT_URL=$bus
# The receive buffer our recorder asks for, given to the peer as well.
peer_bus="$bus&recv_buf_size=4194304"
work=$(mktemp -d /tmp/kelo_peers.XXXXXX)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT

ours_count() { "$kb" info "$1"/*.kelobag | sed -n 's/^messages: *\([0-9]*\).*/\1/p' | tail -1; }
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b == 0) print "-"; else printf "%.2f", a / b }'; }
# record_both DIR CHANNEL COUNT SIZE RATE: both recorders on the bus at once, ours into
# DIR/ours/, lcm-logger into DIR/peer.lcmlog, while lcm_publish sends the traffic.
record_both() {
  local d=$1 channel=$2 ours peer
  shift 2
  mkdir -p "$d/ours"
  "$kb" record -o "$d/ours/" "$channel" > "$d/ours.log" 2>&1 & ours=$!
  LCM_DEFAULT_URL=$peer_bus lcm-logger -c "$channel" "$d/peer.lcmlog" > /dev/null 2>&1 & peer=$!
  sleep 1
  "$publish" "$bus" "$channel" "$@"
  sleep 1; kill -INT $ours $peer; wait $ours || true; wait $peer || true
}

for run in $(seq "$runs"); do
  # Raw payloads: both recorders at once.
  d=$work/raw$run
  record_both "$d" /raw 100000 100 10000
  o=$(ours_count "$d/ours"); p=$("$count" "$d/peer.lcmlog" /raw | cut -d' ' -f1)
  topics=$("$kb" info "$d"/ours/*.kelobag | sed -n 's/^topics: *\([0-9]*\).*/\1/p' | tail -1)
  echo "run $run raw 10k msg/s: ours $o of 100000 ($topics bag channels), lcm-logger $p; ratio $(ratio "$o" "$p")"

  # 1 MB messages: each recorder alone, CPU read just before it is stopped.
  for who in ours peer; do
    d=$work/big$run$who; mkdir -p "$d"
    if [ $who = ours ]; then "$kb" record -o "$d/" /big > "$d.log" 2>&1 & rec=$!
    else LCM_DEFAULT_URL=$peer_bus lcm-logger -c '/big' "$d/peer.lcmlog" > /dev/null 2>&1 & rec=$!; fi
    sleep 1
    "$publish" "$bus" /big 300 1048576 50
    sleep 1; ticks=$(cpu_ticks $rec); kill -INT $rec; wait $rec || true
    if [ $who = ours ]; then n=$(ours_count "$d"); else n=$("$count" "$d/peer.lcmlog" /big | cut -d' ' -f1); fi
    eval "${who}_n=$n ${who}_ticks=$ticks"
  done
  per_ours=$(awk -v t="$ours_ticks" -v n="$ours_n" 'BEGIN { printf "%.2f", n ? t * 10 / n : 0 }')
  per_peer=$(awk -v t="$peer_ticks" -v n="$peer_n" 'BEGIN { printf "%.2f", n ? t * 10 / n : 0 }')
  echo "run $run 1 MB at 50 msg/s: ours $ours_n of 300, $per_ours ms CPU each; lcm-logger $peer_n, $per_peer ms each; CPU ratio $(ratio "$per_ours" "$per_peer")"

  # Intake ceiling for 1 MB messages: ours against the bare subscriber, each alone.
  for who in bare ours; do
    ceiling=0
    for rate in 100 200 300 400 500 600 700 800 900 1000 1200 1500; do
      taken=0
      for try in 1 2; do
        d=$work/ceiling$run$who; mkdir -p "$d"
        if [ $who = ours ]; then "$kb" record -o "$d/" /big > "$d.log" 2>&1 & rec=$!
        else "$bus_count" "$bus" /big > "$d.count" & rec=$!; fi
        sleep 1
        start=$(date +%s.%N)
        "$publish" "$bus" /big $((rate * 3)) 1048576 $rate
        achieved=$(awk -v s="$start" -v e="$(date +%s.%N)" -v n=$((rate * 3)) 'BEGIN { printf "%.0f", n / (e - s) }')
        sleep 1; kill -INT $rec; wait $rec || true
        if [ $who = ours ]; then n=$(ours_count "$d"); else n=$(cut -d' ' -f1 "$d.count"); fi
        rm -rf "$d"
        if [ "${n:-0}" = $((rate * 3)) ]; then taken=1; break; fi
        echo "run $run ceiling, $who: lost $((rate * 3 - ${n:-0})) of $((rate * 3)) at $rate msg/s (try $try)" >&2
      done
      [ $taken = 1 ] || break
      [ "$achieved" -gt "$ceiling" ] && ceiling=$achieved
    done
    eval "${who}_ceiling=$ceiling"
  done
  echo "run $run 1 MB without a loss: ours $ours_ceiling msg/s, bare subscriber $bare_ceiling msg/s; ratio $(ratio "$ours_ceiling" "$bare_ceiling")"

  # Playback pacing: each player plays what it recorded, the probe listening.
  d=$work/pace$run
  record_both "$d" /pace 5000 100 1000
  for who in ours peer; do
    if [ $who = ours ]; then file=$(ls "$d"/ours/*.kelobag); n=$(ours_count "$d/ours")
    else file=$d/peer.lcmlog; n=$("$count" "$file" /pace | cut -d' ' -f1); fi
    "$pace" "$bus" /pace "$n" "$file" > "$d/$who.pace" 2> "$d/$who.probe" & probe=$!
    until grep -q listening "$d/$who.probe"; do sleep 0.05; done
    if [ $who = ours ]; then "$kb" play --publish "$file" > /dev/null 2>&1
    else lcm-logplayer "$file" > /dev/null 2>&1; fi
    wait $probe || true
    eval "${who}_pace=\"\$(cat "$d/$who.pace")\""
  done
  p99() { sed -n 's/.* p99 \(-*[0-9]*\) .*/\1/p' <<< "$1"; }
  echo "run $run playback lateness, ours: $ours_pace"
  echo "run $run playback lateness, lcm-logplayer: $peer_pace; p99 ratio $(ratio "$(p99 "$ours_pace")" "$(p99 "$peer_pace")")"
done
