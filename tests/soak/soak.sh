#!/usr/bin/env bash
# The soak: the real shell streaming for SOAK_MINUTES (10 by default) from a scripted
# session, with its windows on an X server of its own, the web view on with one headless
# browser watching, a simulated QRX100A at VGA 30 fps with all four frame types and a
# replay device beside it. A cycle, repeated until the time is up (the first always whole):
# an unplug and re-plug while streaming; a frame-rate band the camera misses; the display
# off and on; the three display sizes; the replay device for a while; a 300-list dump in
# each mode, each checked by lmr; the run/stop stress test for 20 cycles. Each minute and
# at the end it prints the lists delivered, drawn and dropped, the dumps' records against
# those asked, the shell's memory, descriptors, threads and processor time, and any
# sanitizer report. Exit status 0 only when it passes (see README, "The soak").
#
# Usage: soak.sh BUILD_DIR   (any build: normal, ASan, TSan; sanitizer options from the
# environment). SOAK_KEEP=FILE keeps the shell's whole output there.
set -euo pipefail
BUILD=$(realpath "${1:?usage: $0 BUILD_DIR}")
set -- "$BUILD/shell/lumora-shell"
source "$(dirname "$(realpath "$0")")/../e2e/web_lib.sh"
SOAK_DIR=$(dirname "$(realpath "$0")")
MINUTES=${SOAK_MINUTES:-10}

# What "flat" means: from the second minute on, the descriptors and threads at each
# checkpoint (the VGA camera streaming mask 30, no dump, no stress test, 3 s after its
# run) are those of the first such checkpoint; the resident memory there stays within
# RSS_MARGIN MiB of the first, and the median of the last RSS_SPAN checkpoints within
# RSS_DRIFT MiB of the median of the first RSS_SPAN (when there are twice as many).
RSS_MARGIN=64
RSS_SPAN=5
RSS_DRIFT=16
# Every command's answer comes within this many seconds (a dump's end within its own).
STEP_BOUND=60

VERSION_LINE=""
MAX_ANSWER=0
FAILURES=()
WATCHER_PID=""
START=$SECONDS
MINUTE=0
LAST_TICK=$SECONDS
LAST_CPU=0
declare -a CP_RSS=() CP_FD=() CP_THR=() CP_MIN=()
DUMPS_THIS_MINUTE=""
DUMP_LINES=()
TICKS=$(getconf CLK_TCK)

soak_cleanup() {
  [ -n "$WATCHER_PID" ] && kill "$WATCHER_PID" 2>/dev/null && wait "$WATCHER_PID" 2>/dev/null || true
  [ -n "$SHELL_PID" ] && kill -9 "$SHELL_PID" 2>/dev/null || true
  [ -n "${SOAK_KEEP:-}" ] && cat "$OUT" "$WORKDIR/err" >"$SOAK_KEEP" 2>/dev/null || true
  cleanup
}
trap soak_cleanup EXIT
# A shell that died must fail the soak with a message, not end the script through SIGPIPE.
trap '' PIPE
say() { printf '%s\n' "$@" >&8 || fail "the shell no longer reads its input (sending \"$*\")"; }
alive() { kill -0 "$SHELL_PID" 2>/dev/null; }
out_size() { stat -c %s "$OUT"; }
elapsed() { echo $((SECONDS - START)); }
time_left() { echo $((MINUTES * 60 - (SECONDS - START))); }

# The shell's resident memory (MiB), descriptors, threads and processor ticks.
rss_mib() { awk '/^VmRSS:/ { printf "%d", $2 / 1024 }' "/proc/$SHELL_PID/status"; }
fds() { find "/proc/$SHELL_PID/fd" -mindepth 1 -maxdepth 1 2>/dev/null | wc -l; }
threads() { find "/proc/$SHELL_PID/task" -mindepth 1 -maxdepth 1 2>/dev/null | wc -l; }
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$SHELL_PID/stat"; }

sanitizer_reports() {
  cat "$OUT" "$WORKDIR/err" 2>/dev/null |
    grep -acE 'ERROR: (Address|Leak)Sanitizer|WARNING: ThreadSanitizer|runtime error:|SUMMARY: [A-Za-z]+Sanitizer' || true
}

# The renderer's last "N lists drawn, M dropped at the queue, FPS; D lists delivered" (its
# counts since the start, logged at each stop): "D N M".
renderer_counts() {
  sed -n 's/.*: \([0-9]*\) lists drawn, \([0-9]*\) dropped at the queue, .*; \([0-9]*\) lists delivered.*/\3 \1 \2/p' \
    "$OUT" | tail -1
}
# The watcher's last line: the page's live status and the pictures it decoded per view.
page_state() { tail -1 "$WORKDIR/watch" 2>/dev/null | grep . || echo "no page yet"; }

# Each minute: the figures of the minute.
tick() {
  ((SECONDS - LAST_TICK >= 60)) || return 0
  report "minute $((++MINUTE))"
}

report() {
  local cpu now ticks rss fd thr renderer d n m
  alive || fail "the shell is gone"
  now=$SECONDS
  ticks=$(cpu_ticks)
  cpu=$(awk -v t=$((ticks - LAST_CPU)) -v s=$((now - LAST_TICK)) -v hz="$TICKS" 'BEGIN { printf "%.2f", (s > 0 ? t / hz / s : 0) }')
  LAST_CPU=$ticks LAST_TICK=$now
  rss=$(rss_mib) fd=$(fds) thr=$(threads)
  read -r d n m < <(renderer_counts || true) || true
  renderer="renderer (at the last stop): delivered ${d:-0}, drawn ${n:-0}, dropped ${m:-0}"
  printf '%s (%d s, load %s): %s; page: %s\n' "$1" "$(elapsed)" "$(cut -d' ' -f1-3 /proc/loadavg)" "$renderer" "$(page_state)"
  printf '  dumps: %s\n' "${DUMPS_THIS_MINUTE:-none ended}"
  printf '  shell: RSS %d MiB, %d descriptors, %d threads, processor %s s per second; sanitizer reports: %d; slowest answer %d s\n' \
    "$rss" "$fd" "$thr" "$cpu" "$(sanitizer_reports)" "$MAX_ANSWER"
  DUMPS_THIS_MINUTE=""
}

pause() {
  local until=$((SECONDS + $1))
  while ((SECONDS < until)); do
    alive || fail "the shell ended"
    tick
    sleep 1
  done
}

# Waits up to $1 s for the command $2... to succeed, keeping the minute's figures; fails
# with the message $3 otherwise.
await() {
  local bound=$1 message=$2 started=$SECONDS
  shift 2
  until "$@"; do
    ((SECONDS - started < bound)) || fail "$message (within $bound s)"
    alive || fail "the shell ended: $message"
    tick
    sleep 0.1
  done
}

more_than() { [ "$(out_count "$1")" -gt "$2" ]; }

# Sends the command $1 and then "version", whose answer shows that the shell has done
# with $1; the answer must come within STEP_BOUND s. The output in between is in
# STEP_OUT; when $2 is given it must hold that text.
step() {
  local before offset started=$SECONDS took
  before=$(out_count "$VERSION_LINE")
  offset=$(out_size)
  say "$1"
  say version
  await "$STEP_BOUND" "no answer to \"$1\"" more_than "$VERSION_LINE" "$before"
  took=$((SECONDS - started))
  ((took > MAX_ANSWER)) && MAX_ANSWER=$took
  STEP_OUT=$(tail -c +$((offset + 1)) "$OUT" | tr -d '\r')
  [ -z "${2:-}" ] || [[ "$STEP_OUT" == *"$2"* ]] || fail "\"$1\" answered: $(tail -c 400 <<<"$STEP_OUT")"
}

# The index in the last search of the device with the URI $1.
index_of() { sed -n "s/^\([0-9]*\)) source name : .*, uri : $1\$/\1/p" <<<"$STEP_OUT" | tail -1; }

# Streaming checkpoint: the VGA camera runs mask 30 with no dump and no stress test.
checkpoint() {
  pause 3
  if ((SECONDS - START >= 60)); then
    CP_RSS+=("$(rss_mib)") CP_FD+=("$(fds)") CP_THR+=("$(threads)") CP_MIN+=("$(elapsed)")
  fi
}

# Selects the device whose URI matches the pattern $1.
select_camera() {
  step search "uri : "
  local index
  index=$(index_of "$1")
  [ -n "$index" ] || fail "no $1 in the search"
  step "select $index" "selected device("
}

# --- a cycle's parts ---
CAMERA=""
replug() {
  local number=${CAMERA#sim:} before
  # The library announces plugging from its own thread, also after the command's answer.
  before=$(out_count "onDetachedLumoraSource($CAMERA)")
  step "set sim_detach $number" "-> result : success"
  await 30 "no onDetachedLumoraSource($CAMERA)" more_than "onDetachedLumoraSource($CAMERA)" "$before"
  step deselect
  before=$(out_count "onAttachedLumoraSource(")
  step "set sim_attach QRX100A:640x480@30" "-> result : success"
  await 30 "no onAttachedLumoraSource after sim_attach" more_than "onAttachedLumoraSource(" "$before"
  CAMERA=$(grep -ao 'onAttachedLumoraSource(sim:[0-9]*)' "$OUT" | tail -1 | sed 's/.*(\(.*\))/\1/')
  select_camera "$CAMERA"
  step "run 30" "-> result : success"
  checkpoint
}

fps_display_sizes() {
  step "set fps_error_check_min 50" "-> result : success"
  step "set fps_error_check_max 60" "-> result : success"
  step "set fps_error_check on" "-> result : success"
  pause 4
  step "set display off" "-> result : success"
  pause 3
  step "set display on" "-> result : success"
  pause 2
  local size
  for size in 0 1 2; do
    step "set display_resolution $size" "-> result : success"
    pause 2
  done
}

# Stops the camera (the renderer logs its counts and frame-rate text), plays the replay
# device for a while, and returns to the VGA camera. The stop must show the band's errors.
replay() {
  local logged
  logged=$(out_count "lists delivered")
  step stop "-> result : success"
  await 10 "no renderer counts after stop" more_than "lists delivered" "$logged"
  grep -a "lists delivered" "$OUT" | tail -1 | grep -qE 'check error\(([2-9]|[1-9][0-9]+)\) : ' ||
    fail "the frame-rate band the camera misses counted no errors"
  step "set fps_error_check off" "-> result : success"
  step deselect "-> result : success"
  select_camera "replay:[0-9]*"
  step "run 6" "-> result : success"
  pause 15
  step stop "-> result : success"
  step deselect "-> result : success"
  select_camera "$CAMERA"
  step "run 30" "-> result : success"
  checkpoint
}

# One dump of 300 lists in mode $1, checked by lmr against what the shell logged: the
# lists asked for, those taken before the writer ended (it ends after 100 ms without a
# list), the records written and why the others were not.
dump() {
  local mode=$1 finished summaries file found asked taken written dropped without lines info
  finished=$(out_count "Frame dump finished!")
  summaries=$(out_count "records written,")
  step "set frame_dump $mode 300" "-> result : success"
  # 300 lists take 10 s at 30 fps; under ThreadSanitizer the camera may deliver 2 a second.
  await 600 "no end of the mode $mode dump" more_than "Frame dump finished!" "$finished"
  await 30 "no account of the mode $mode dump" more_than "records written," "$summaries"
  file=$(dump_file)
  read -r asked taken written dropped without lines < <(grep -a "records written," "$OUT" | tail -1 |
    sed 's/.*dump of \([0-9]*\) lists, \([0-9]*\) taken when the writer ended: \([0-9]*\) records written, \([0-9]*\) lists dropped at the queue, \([0-9]*\) without .* frame, \([0-9]*\) without.*/\1 \2 \3 \4 \5 \6/')
  info=$("$LMR_BIN" info "$file" 2>&1) || true
  found=$(sed -n 's/^ *records *\([0-9]*\) found, [0-9]* announced.*/\1/p' <<<"$info")
  rm -f "$file"
  local line="mode $mode: $found of $asked records ($dropped dropped at the queue, $without without the frame, $lines without an embedded line"
  ((taken < asked)) && line+="; the writer ended after $taken lists, no list for 100 ms"
  line+=")"
  DUMP_LINES+=("$line")
  DUMPS_THIS_MINUTE+="${DUMPS_THIS_MINUTE:+; }$line"
  [ "$asked" = 300 ] || FAILURES+=("mode $mode dump announced $asked lists")
  [ "$found" = "$written" ] || FAILURES+=("mode $mode dump: lmr found $found records, the shell wrote $written")
  # A writer that ended early may have been sent lists after its last look at the queue.
  if ((taken == asked ? found + dropped + without + lines != taken : found + dropped + without + lines > taken)); then
    FAILURES+=("mode $mode dump: $found of $taken records, unexplained")
  fi
  grep -qE '^ *embedded_line_control +1$' <<<"$info" || FAILURES+=("mode $mode dump: no embedded lines")
  ! grep -qE 'cut short|cannot be read' <<<"$info" || FAILURES+=("mode $mode dump: $(grep -m1 -E 'cut short|cannot be read' <<<"$info")")
}

dumps() {
  local mode
  for mode in 0 1 2 3; do dump "$mode"; done
  checkpoint
}

stress() {
  local seconds=$(($(time_left) < 70 ? $(time_left) : 70))
  ((seconds < 8)) && seconds=8
  step "_run_stop_test" "-> result : success"
  pause "$seconds"
  step stop "run_stop test count = "
  step "run 30" "-> result : success"
  checkpoint
}

# --- the recording for the replay device: 60 lists of depth and amplitude ---
echo "soak: $MINUTES minutes, build $BUILD, $(nproc) cores, load $(cut -d' ' -f1-3 /proc/loadavg)"
start_piped "QRX100A:640x480@30" 0
say search "select 0" "run 6"
wait_out "-> result : success" 1
say "set frame_dump 1 60"
await 60 "no recording for the replay device" out_has "Frame dump finished!"
say stop
end_piped
mkdir -p "$WORKDIR/replay"
mv "$(dump_file)" "$WORKDIR/replay/recording.lmr"

# --- the soak ---
start_piped "QRX100A:640x480@30,replay:$WORKDIR/replay/recording.lmr" 1
say "set log_level 3"
say version
await 30 "no answer to \"version\"" grep -qE 'v[0-9.]+ : [0-9-]+$' "$OUT"
VERSION_LINE=$(grep -m1 -oE 'v[0-9.]+ : [0-9-]+$' "$OUT")
start_web
/usr/bin/python3 "$SOAK_DIR/watch.py" "$URL" "$WORKDIR/watch" 2>"$WORKDIR/watch.err" &
WATCHER_PID=$!
CAMERA=sim:0
select_camera "$CAMERA"
step "run 30" "-> result : success"
LAST_CPU=$(cpu_ticks) LAST_TICK=$SECONDS
checkpoint
cycles=0
while :; do
  replug
  fps_display_sizes
  replay
  dumps
  stress
  cycles=$((cycles + 1))
  (($(time_left) > 0)) || break
done
step "set web_view off" "-> result : success"
web_line=$(grep -a "web view: .* messages sent" <<<"$STEP_OUT" | tail -1 | sed 's/^.*web view: /web view: /')
step stop "-> result : success"
report "end"
echo "  $cycles cycles; $web_line"
printf '  dump: %s\n' "${DUMP_LINES[@]}"
kill "$WATCHER_PID" 2>/dev/null || true
wait "$WATCHER_PID" || FAILURES+=("the browser watcher failed: $(tail -3 "$WORKDIR/watch.err")")
WATCHER_PID=""
end_piped
reports=$(sanitizer_reports)
((reports == 0)) || FAILURES+=("$reports sanitizer report lines: $(grep -m3 -E 'Sanitizer|runtime error:' "$WORKDIR/err")")

# --- flat ---
echo "  checkpoints (s: RSS MiB/descriptors/threads): $(for i in "${!CP_RSS[@]}"; do printf '%s: %s/%s/%s  ' "${CP_MIN[i]}" "${CP_RSS[i]}" "${CP_FD[i]}" "${CP_THR[i]}"; done)"
if ((${#CP_RSS[@]} < 2)); then
  FAILURES+=("fewer than two checkpoints after the first minute")
else
  for i in "${!CP_RSS[@]}"; do
    [ "${CP_FD[i]}" = "${CP_FD[0]}" ] || FAILURES+=("descriptors ${CP_FD[0]} -> ${CP_FD[i]} at ${CP_MIN[i]} s")
    [ "${CP_THR[i]}" = "${CP_THR[0]}" ] || FAILURES+=("threads ${CP_THR[0]} -> ${CP_THR[i]} at ${CP_MIN[i]} s")
    ((CP_RSS[i] <= CP_RSS[0] + RSS_MARGIN)) || FAILURES+=("RSS ${CP_RSS[0]} -> ${CP_RSS[i]} MiB at ${CP_MIN[i]} s")
  done
  median() { printf '%s\n' "$@" | sort -n | sed -n "$(((${#} + 1) / 2))p"; }
  if ((${#CP_RSS[@]} >= 2 * RSS_SPAN)); then
    first=$(median "${CP_RSS[@]:0:RSS_SPAN}") last=$(median "${CP_RSS[@]: -RSS_SPAN}")
    echo "  RSS median of the first $RSS_SPAN checkpoints $first MiB, of the last $RSS_SPAN $last MiB"
    ((last <= first + RSS_DRIFT)) || FAILURES+=("RSS drifted: median $first -> $last MiB")
  fi
fi
if ((${#FAILURES[@]})); then
  printf 'FAIL: %s\n' "${FAILURES[@]}"
  exit 1
fi
echo "soak: passed"
