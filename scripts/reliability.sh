#!/usr/bin/env bash
# Fault experiments on a real LCM bus, each bounded in time, inside private network and
# mount namespaces (nothing leaves this machine); writes docs/reliability.md with one row
# per experiment: its figure, its pass line and whether it passed.
#
#   scripts/reliability.sh [--quick] [--out FILE]
#
# Needs the release build (and the asan build, for the damaged bags); `--quick` (at most
# 3 minutes) runs in CI; the full run takes about 45 minutes. Exit status 1 when an
# experiment failed.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
if [ "${1:-}" != --inside ]; then exec tests/run_in_netns.sh bash "$0" --inside "$@"; fi
shift
quick=0
out=docs/reliability.md
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=1 ;;
    --out) out=$2; shift ;;
    *) echo "usage: scripts/reliability.sh [--quick] [--out FILE]" >&2; exit 2 ;;
  esac
  shift
done
pick() { if [ $quick = 1 ]; then echo "$1"; else echo "$2"; fi; }

release=$root/build/release
asan=$root/build/asan
kb=$release/tools/kelo_bag
publish=$release/tests/lcm_publish
bus='udpm://239.255.76.67:7667?ttl=0'
for f in "$kb" "$publish" "$release/tests/hostile_traffic"; do
  [ -x "$f" ] || { echo "missing $f: build the release preset first" >&2; exit 2; }
done
work=$(mktemp -d /tmp/kelo_reliability.XXXXXX)
trap 'kill $(jobs -p) 2>/dev/null || true; umount -R "$work"/* 2>/dev/null || true; [ -n "${KEEP:-}" ] || rm -rf "$work"' EXIT
export LCM_DEFAULT_URL=$bus

rows=()
failed=0
# row EXPERIMENT FIGURE PASS-LINE OK(0/1)
row() {
  local verdict=pass
  [ "$4" = 1 ] || { verdict=FAIL; failed=1; }
  rows+=("| $1 | $2 | $3 | $verdict |")
  echo "[$verdict] $1: $2"
}
now_ms() { date +%s%3N; }
read_bags() { node "$root/tests/reliability/read_bags.mjs" /seq "$@"; }
field() { sed -n "s/.*\b$1=\([-0-9]*\).*/\1/p" <<< "$2"; }
# The numbers in the recorder's last line: "received N messages (...), none lost" or
# "...; K of them lost: ...".
received() { sed -n 's/^received \([0-9]*\) messages.*/\1/p' "$1" | tail -1; }
lost() { local k; k=$(sed -n 's/^received .*; \([0-9]*\) of them lost.*/\1/p' "$1" | tail -1); echo "${k:-0}"; }
# Messages our reader finds in the bags of a folder (unfinished parts included).
kept() {
  local n=0 m f
  for f in "$1"/*.kelobag*; do
    [ -e "$f" ] || continue
    m=$("$kb" info "$f" 2>/dev/null | sed -n 's/^messages: *\([0-9]*\).*/\1/p' | head -1 || true)
    n=$((n + ${m:-0}))
  done
  echo $n
}

# 4. Fuzzing, in the full run: every target from its corpus, built without the sanitizers,
# two at a time (the slowest first), until 10 million executions each or the run's deadline.
# It runs at idle priority beside the other experiments, which take the processors whenever
# they want them, and alone once they are done (its row comes last); the corpora it grew are
# then replayed by the targets built with ASan + UBSan.
started=$(date +%s)
fuzz_until=$((started + 43 * 60))
fuzz=
if [ $quick = 0 ]; then
  FUZZ_SANITIZE=OFF FUZZ_RUNS=10000000 FUZZ_UNTIL=$fuzz_until FUZZ_SECONDS=$((43 * 60)) \
    FUZZ_TARGETS="bag_reader_fuzzer command_line_fuzzer udp_frame_fuzzer control_messages_fuzzer" \
    chrt --idle 0 tests/fuzz/run_fuzz.sh "$root/build/fuzz-fast" > "$work/fuzz.log" 2>&1 &
  fuzz=$!
fi

# 1. Crash: kill -9 at random moments under steady numbered traffic (1000 msg/s).
crash_runs() {
  local split=$1 kills=$2 i losses=() bad=0 d f rc summary newest killed
  for i in $(seq "$kills"); do
    d=$work/crash$split/$i
    mkdir -p "$d"
    "$publish" "$bus" /seq 1000000 100 1000 & local pub=$!
    "$kb" record -o "$d/" ${split:+-s $split} /seq > "$d.log" 2>&1 & local rec=$!
    sleep "$(printf '1.%03d' $((RANDOM % 1000)))"
    kill -9 $rec
    killed=$(now_ms)
    wait $rec 2>/dev/null || true
    kill $pub; wait $pub 2>/dev/null || true
    mkdir -p "$d.recovered"
    for f in "$d"/*; do
      rc=0; timeout 10 "$kb" info "$f" > /dev/null 2>&1 || rc=$?
      [ $rc = 0 ] || [ $rc = 3 ] || { echo "info $f: exit $rc"; bad=$((bad + 1)); }
      rc=0; timeout 20 "$kb" play "$f" > /dev/null 2>&1 || rc=$?
      [ $rc = 0 ] || [ $rc = 3 ] || { echo "play $f: exit $rc"; bad=$((bad + 1)); }
      f_name=$(basename "$f"); f_name=${f_name%.active}
      rc=0; timeout 20 "$kb" recover -o "$d.recovered/$f_name" "$f" > /dev/null 2>&1 || rc=$?
      [ $rc = 0 ] || [ $rc = 3 ] || { echo "recover $f: exit $rc"; bad=$((bad + 1)); }
    done
    # Recovered, every file is whole for the independent reader, with the same messages.
    if grep -qv " complete$" <<< "$(read_bags "$d.recovered"/* | sed '$d')" ||
       [ "$(field messages "$(read_bags "$d.recovered"/* | tail -1)")" != "$(field messages "$(read_bags "$d"/* | tail -1)")" ]; then
      echo "crash $i: recovered files differ"; bad=$((bad + 1))
    fi
    summary=$(read_bags "$d"/* | tail -1)
    if grep -q " error: " <<< "$(read_bags "$d"/*)" || [ "$(field gaps "$summary")" != 0 ] ||
       [ "$(field duplicates "$summary")" != 0 ] || [ "$(field disorder "$summary")" != 0 ]; then
      echo "crash $i: $summary"; bad=$((bad + 1))
    fi
    newest=$(field newest_ms "$summary")
    losses+=($((killed - ${newest:-0})))
  done
  local sorted median max
  sorted=$(printf '%s\n' "${losses[@]}" | sort -n)
  median=$(sed -n "$(((kills + 1) / 2))p" <<< "$sorted")
  max=$(tail -1 <<< "$sorted")
  row "crash, kill -9 x$kills${split:+, ${split} s parts}" \
    "traffic lost per kill: median $median ms, max $max ms; $bad bad files or sequences" \
    "every file opens in info, play and @mcap/core, and recovers whole with the same messages; no gap, duplicate or reordering; max loss <= 100 ms" \
    "$([ $bad = 0 ] && [ "$max" -le 100 ] && echo 1 || echo 0)"
}
crash_runs "" "$(pick 3 50)"
crash_runs 1 "$(pick 3 50)"

# 2. Disk full, a read-only folder, a folder removed under the recorder.
d=$work/full; mkdir -p "$d"; mount -t tmpfs -o size=8m tmpfs "$d"
head -c 6000000 /dev/zero > "$d/filler"
"$kb" record -o "$d/" /seq > "$work/full.log" 2>&1 & rec=$!
sleep 0.5
"$publish" "$bus" /seq 3000 10000 1000 &
pub=$!
sleep 1.5; rm "$d/filler"   # space returns half way
wait $pub; sleep 0.5; kill -INT $rec; rc=0; wait $rec || rc=$?
r=$(received "$work/full.log"); l=$(lost "$work/full.log"); k=$(kept "$d")
# 2 MB held about 200 of these messages: more kept means writing went on once space returned.
row "disk full (8 MB tmpfs, 6 MB freed half way)" "received $r, kept $k, counted lost $l, exit $rc" \
  "exit 1; kept + lost = received; more kept than fitted before the space returned" \
  "$([ $rc = 1 ] && [ $((k + l)) = "$r" ] && [ "$k" -gt 400 ] && echo 1 || echo 0)"

d=$work/ro; mkdir -p "$d"; mount --bind "$d" "$d"; mount -o remount,ro,bind "$d"
rc=0; timeout 10 "$kb" record -o "$d/" /seq > "$work/ro.log" 2>&1 || rc=$?
row "read-only folder" "exit $rc: $(tail -1 "$work/ro.log" | sed "s|$work|...|")" \
  "stops at once with an error that names the folder, exit 1 or 2" \
  "$({ [ $rc = 1 ] || [ $rc = 2 ]; } && grep -q "$d" "$work/ro.log" && echo 1 || echo 0)"

d=$work/gone; mkdir -p "$d/sub"
"$kb" record -o "$d/sub/" /seq > "$work/gone.log" 2>&1 & rec=$!
"$publish" "$bus" /seq 3500 100 1000 & pub=$!
sleep 1; rm -rf "$d/sub"; sleep 1; mkdir "$d/sub"
wait $pub; sleep 0.5; kill -INT $rec; rc=0; wait $rec || rc=$?
r=$(received "$work/gone.log"); l=$(lost "$work/gone.log"); k=$(kept "$d/sub")
row "folder removed for 1 s under the recorder" "received $r, kept $k, counted lost $l, exit $rc" \
  "exit 1; kept + lost = received; recording resumed in the new folder" \
  "$([ $rc = 1 ] && [ $((k + l)) = "$r" ] && [ "$k" -gt 0 ] && echo 1 || echo 0)"

# 3. Damaged bags through info, play and recover, under the sanitizers when that build is there.
tool=$kb; flavour=release
if [ -x "$asan/tools/kelo_bag" ]; then tool=$asan/tools/kelo_bag; flavour="ASan + UBSan"; fi
d=$work/damage; mkdir -p "$d/src"
"$kb" record -o "$d/src/" /seq > "$d/rec.log" 2>&1 & rec=$!
sleep 0.5; "$publish" "$bus" /seq 5000 1000 10000; sleep 0.3; kill -INT $rec; wait $rec || true
bag=$(ls "$d"/src/*.kelobag); total=$(kept "$d/src"); size=$(stat -c %s "$bag")
variants=$(pick 20 200); crashes=0; slow=0; silent=0
for i in $(seq "$variants"); do
  v=$d/v$i.kelobag; cp "$bag" "$v"
  case $((i % 3)) in
    0) for _ in 1 2 3 4 5 6 7 8; do   # bit flips
         off=$(((RANDOM * 32768 + RANDOM) % size))
         b=$(od -An -tu1 -j"$off" -N1 "$v" | tr -d ' ')
         printf "$(printf '\\%03o' $((b ^ (1 << (RANDOM % 8)))))" |
           dd of="$v" bs=1 seek="$off" conv=notrunc status=none
       done ;;
    1) truncate -s $(((RANDOM * 32768 + RANDOM) % size)) "$v" ;;
    2) dd if=/dev/zero of="$v" bs=4096 count=1 seek=$(((RANDOM * 32768 + RANDOM) % (size / 4096))) \
          conv=notrunc status=none ;;
  esac
  for command in info play recover; do
    to=(); [ $command = recover ] && to=(-o "$v.recovered.kelobag")
    rc=0; timeout 10 "$tool" $command "${to[@]}" "$v" > "$v.$command" 2>&1 || rc=$?
    if [ $rc -ge 124 ]; then [ $rc = 124 ] && slow=$((slow + 1)) || crashes=$((crashes + 1)); fi
    grep -qE "AddressSanitizer|runtime error:|LeakSanitizer" "$v.$command" && crashes=$((crashes + 1))
    # Exit 0 only when every message was delivered; otherwise the file is named.
    if [ $command = play ]; then
      if [ $rc = 0 ]; then grep -q "^played $total messages" "$v.play" || silent=$((silent + 1))
      elif [ $rc -lt 124 ]; then grep -q "$v" "$v.play" || silent=$((silent + 1)); fi
    fi
    if [ $command = recover ]; then
      if [ $rc = 0 ]; then grep -q "^wrote $total messages" "$v.recover" || silent=$((silent + 1))
      elif [ $rc -lt 124 ]; then grep -q "$v" "$v.recover" || silent=$((silent + 1)); fi
    fi
  done
done
row "damaged bags ($variants variants of a $total-message bag, $flavour)" \
  "$crashes crashes or sanitizer reports, $slow runs over 10 s, $silent silent losses" \
  "0 of each" "$([ $((crashes + slow + silent)) = 0 ] && echo 1 || echo 0)"

# 5. Hostile datagrams at the monitor and trigger port while a recorder records and a
# trigger recorder keeps its folder within a budget.
d=$work/hostile; mkdir -p "$d/cont" "$d/trig"
for i in 1 2 3; do head -c 100000 /dev/urandom > "$d/trig/bag_2020010100000${i}.kelobag"; done
"$kb" record -o "$d/cont/" /seq > "$d/cont.log" 2>&1 & rec=$!
"$kb" record --trigger --reserve 2 --duration 3 --fs 2 -o "$d/trig/" /seq > "$d/trig.log" 2>&1 & trig=$!
sleep 0.5
count=$(pick 5000 100000)
"$publish" "$bus" /seq 1000000 100 1000 & pub=$!
# The flood starts once both recorders have taken the publisher's first messages: an answer
# given before that names no topic and would count as none.
for _ in $(seq 100); do
  [ "$("$kb" monitor --once --wait 300 2>/dev/null | grep -c "/seq" || true)" -ge 2 ] && break
  sleep 0.1
done
"$release/tests/hostile_traffic" "$count" 7 > "$d/hostile.log" &
hostile=$!
answers=0; asked=0
while kill -0 $hostile 2>/dev/null; do
  asked=$((asked + 1))
  grep -q "/seq" <<< "$("$kb" monitor --once 2>/dev/null || true)" && answers=$((answers + 1))
done
wait $hostile
rc=0; timeout 20 "$kb" trigger --label real --wait 15 > "$d/trigger.log" 2>&1 || rc=$?
kill $pub; wait $pub 2>/dev/null || true; sleep 0.3
kill -INT $rec $trig; wait $rec || true; wait $trig || true
r=$(received "$d/cont.log"); l=$(lost "$d/cont.log"); k=$(kept "$d/cont")
before=$(ls "$d/trig" | grep -c "^bag_2020" || true)
row "hostile network ($count datagrams, 300 bad triggers from one sender)" \
  "kept $k of $r, lost $l; monitor answered $answers of $asked; old bags left $before of 3; real trigger exit $rc" \
  "every message kept; monitor answered each time; no bag deleted; the real trigger saved its window" \
  "$([ "$l" = 0 ] && [ "$k" = "$r" ] && [ $answers = $asked ] && [ "$before" = 3 ] && [ $rc = 0 ] && echo 1 || echo 0)"

# 6. Two hosts: a veth pair between this namespace and a second one.
ip link add kelo0 type veth peer name kelo1
# The other host is a network namespace held by a sleeping process (no named namespace:
# "ip netns add" needs a mount that a chroot cannot make).
unshare -n sleep 3600 & other=$!
until [ "$(readlink /proc/$other/ns/net)" != "$(readlink /proc/$$/ns/net)" ]; do sleep 0.05; done
in_other() { nsenter -t "$other" -n "$@"; }
ip link set kelo1 netns "$other"
ip addr add 10.77.0.1/24 dev kelo0; ip link set kelo0 up multicast on
in_other sh -c 'ip link set lo up; ip addr add 10.77.0.2/24 dev kelo1; ip link set kelo1 up multicast on'
d=$work/hosts; mkdir -p "$d/a" "$d/b"
"$kb" record --trigger --reserve 1 --duration 1 --interface kelo0 -o "$d/a/" -n wide /seq > "$d/a.log" 2>&1 & a=$!
"$kb" record --trigger --reserve 1 --duration 1 -o "$d/b/" -n local /seq > "$d/b.log" 2>&1 & b=$!
# Every query and trigger comes from a new port of the other namespace, and each must reach
# the recorder of that interface and no other (with SO_REUSEPORT on the group's sockets, the
# kernel once handed about half of them to the loopback-only recorder, which dropped them).
seen=0; wrong=0; reached=0
sleep 1
for _ in 1 2 3 4 5 6; do
  said=$(in_other "$kb" monitor --once --interface kelo1 2>/dev/null || true)
  grep -q wide <<< "$said" && seen=$((seen + 1))
  grep -q local <<< "$said" && wrong=$((wrong + 1))
done
for _ in 1 2 3; do
  said=$(in_other timeout 20 "$kb" trigger --interface kelo1 --label far --wait 5 2>&1 || true)
  grep -q wide <<< "$said" && reached=$((reached + 1))
  grep -q local <<< "$said" && wrong=$((wrong + 1))
done
kill -INT $a $b; wait $a || true; wait $b || true
kill "$other"; wait "$other" 2>/dev/null || true
row "two hosts (veth pair)" \
  "from the other namespace: monitor queries answered by the --interface recorder $seen of 6, triggers it answered $reached of 3, answers of the loopback-only recorder $wrong" \
  "only the recorder started with --interface answers, every time" \
  "$([ $seen = 6 ] && [ $reached = 3 ] && [ $wrong = 0 ] && echo 1 || echo 0)"

# 7. Soak: steady traffic with 10 s parts; memory flat once the recording has settled.
seconds=$(pick 20 600)
rate=$(pick 5000 16000)  # the full run: 80% of the 20,000 msg/s the bus path takes without a drop
d=$work/soak; mkdir -p "$d"
"$kb" record -s 10 -o "$d/" /seq > "$d.log" 2>&1 & rec=$!
sleep 0.5
"$publish" "$bus" /seq $((seconds * rate)) 100 "$rate" & pub=$!
settle=$(pick 11 60)  # past the first part (quick) or the first minute
window=$(pick 4 60)
# RSS once a second. Within each 10 s part the recorder's memory rises and falls with the
# part's buffers and index, and now and then a reading catches a part being completed while
# the next one fills: growth compares the median reading of the window after settling with
# the median of the last window (six parts each in the full run); the peaks are shown too.
start=$SECONDS
while kill -0 $pub 2> /dev/null; do
  echo "$((SECONDS - start)) $(awk '/VmRSS/ {print $2}' /proc/$rec/status)"
  sleep 1
done > "$d.rss"
wait $pub || true
sleep 0.5; kill -INT $rec; wait $rec || true
summary=$(read_bags "$d"/* | tail -1)
# Prints the median and the peak of the window after settling, then of the last window.
read -r rss0 peak0 rss1 peak1 < <(awk -v s=$settle -v w=$window '
  function median(a, n,   i, j, x) {
    for (i = 2; i <= n; i++) { x = a[i]; for (j = i - 1; j > 0 && a[j] > x; j--) a[j + 1] = a[j]; a[j + 1] = x }
    return n ? a[int((n + 1) / 2)] : 0 }
  {t[NR] = $1; r[NR] = $2; last = $1}
  END {for (i = 1; i <= NR; i++) {
         if (t[i] >= s && t[i] < s + w) { a[++na] = r[i]; if (r[i] > pa) pa = r[i] }
         if (t[i] > last - w) { b[++nb] = r[i]; if (r[i] > pb) pb = r[i] } }
       print median(a, na), pa + 0, median(b, nb), pb + 0}' "$d.rss")
mb() { echo "$(($1 / 1024)).$(($1 % 1024 * 10 / 1024))"; }
growth=$(awk -v a=$rss0 -v b=$rss1 'BEGIN {printf "%.1f", a ? (b - a) * 100 / a : 100}')
row "soak, $seconds s at $rate msg/s, 10 s parts" \
  "$(field messages "$summary") of $((seconds * rate)) stored; the recorder said: $(tail -1 "$d.log"); median RSS $(mb $rss0) -> $(mb $rss1) MB (${growth}%), peaks $(mb $peak0) and $(mb $peak1) MB" \
  "every number exactly once; the median RSS of the last ${window} s is < 5% above that of the ${window} s after the first ${settle} s" \
  "$([ "$(field messages "$summary")" = $((seconds * rate)) ] && [ "$(field gaps "$summary")" = 0 ] && [ "$(field duplicates "$summary")" = 0 ] && awk -v g="$growth" 'BEGIN {exit !(g < 5)}' && echo 1 || echo 0)"

if [ -z "$fuzz" ]; then
  rows+=("| fuzzing | regression corpora only (scripts/test.sh runs them) | - | - |")
else
  rc=0; wait $fuzz || rc=$?
  replay=0
  FUZZ_RUNS=0 FUZZ_CORPUS="$root/build/fuzz-fast/corpus" tests/fuzz/run_fuzz.sh "$root/build/fuzz" \
    > "$work/replay.log" 2>&1 || replay=$?
  # Per target: "name: N executions, cov C".
  stats=$(awk '/^== /{name=$2} /^#[0-9]+[ \t]+DONE/{for(i=1;i<=NF;i++) if($i=="cov:") cov[name]=$(i+1)}
    /^stat::number_of_executed_units:/{n[name]=$2; order[++k]=name}
    END{for(i=1;i<=k;i++){m=order[i]; printf "%s%s: %d executions, cov %s", (i>1?"; ":""), m, n[m], cov[m]; if(n[m]<10000000) short=1}
        if(short) printf " SHORT"}' "$work/fuzz.log")
  replayed=$(awk '/^stat::number_of_executed_units:/{n += $2} END{print n + 0}' "$work/replay.log")
  enough=1; [[ $stats == *SHORT ]] && enough=0
  row "fuzzing, $(((fuzz_until - started) / 60)) min at most, at idle priority beside the experiments above" \
    "${stats% SHORT}; $([ $rc = 0 ] && echo 0 || echo some) crashes; the $replayed inputs of the grown corpora replayed under ASan + UBSan: $([ $replay = 0 ] && echo 0 || echo some) reports" \
    "no crash or sanitizer report; 10 million executions a target" \
    "$([ $rc = 0 ] && [ $replay = 0 ] && [ $enough = 1 ] && echo 1 || echo 0)"
fi

{
  echo "# Reliability runs"
  echo
  echo "Written by \`scripts/reliability.sh$([ $quick = 1 ] && echo " --quick")\` on $(date -u '+%Y-%m-%d %H:%M UTC'),"
  echo "commit $(git rev-parse --short HEAD 2>/dev/null || echo unknown), $(nproc) cores, $(uname -r)."
  echo
  echo "| experiment | figure | passes when | result |"
  echo "|---|---|---|---|"
  printf '%s\n' "${rows[@]}"
} > "$out"
echo "wrote $out"
exit $failed
