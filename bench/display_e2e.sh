#!/usr/bin/env bash
# End-to-end cost of the live display: the shell streaming the simulated QRX100A at 30 fps
# under Xvfb, with mask 6 and then mask 30, beside a bare program that only shows the same
# three windows at 30 fps under the same Xvfb in the same run. Prints the figures; with
# RESULTS_FILE, appends them as "display.FIGURE=VALUE" lines for bench/table.py; with
# BENCH_LOG set, appends the shell's output to that file.
# Usage: bench/display_e2e.sh BUILD_DIR [SECONDS] [RESULTS_FILE]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
seconds=${2:-60}
results=${3:-/dev/null}
source tests/e2e/lib.sh "$build/shell/lumora-shell"
start_display
mkdir -p -m 700 "$WORKDIR/runtime"
echo "display.load=$(cut -d' ' -f1-3 /proc/loadavg)" >>"$results"

# Processor seconds (user + system) a process has used so far.
cpu_of() { awk -v hz="$(getconf CLK_TCK)" '{ print ($14 + $15) / hz }' "/proc/$1/stat"; }

# "imshow p50 A ms p99 B ms" from the bare program, then its processor seconds.
bare=$(DISPLAY=$XDISPLAY XDG_RUNTIME_DIR=$WORKDIR/runtime QT_XCB_GL_INTEGRATION=none python3 -c '
import resource, subprocess, sys
subprocess.run(sys.argv[1:], check=True)
usage = resource.getrusage(resource.RUSAGE_CHILDREN)
print(usage.ru_utime + usage.ru_stime)' "$build/bench/lumora-bare-imshow" "$seconds")
read -r bare_p50 bare_p99 < <(sed -n 's/^imshow p50 \([0-9.]*\) ms p99 \([0-9.]*\) ms$/\1 \2/p' <<<"$bare")
bare_cpu=$(tail -1 <<<"$bare")

P="QRX100A:"
start_streaming
shell_pid=$(pgrep -P "$(tmux_ display-message -p '#{pane_pid}')" -x lumora-shell)
expect_after "$P" "set log_level 3" "-> result : success"

# Types the command $1 and waits for its result line. Under log level 3 a "stop" also makes
# the renderer log its counts from its own thread, before or after the result line: each
# line is waited for on its own.
command_ok() {
  local results traces
  results=$(received_count "-> result : success")
  traces=$(received_count " source(")
  type_line "$1"
  retry "no result after \"$1\"" received_more "-> result : success" "$results"
  settle_traces "$P" "$1" "$traces"
}

# The last "N lists drawn, M dropped at the queue, fps : F" the renderer logged: "N M F".
last_counts() {
  raw_output | sed -n 's/.*: \([0-9]*\) lists drawn, \([0-9]*\) dropped at the queue, fps : \([0-9.]*\).*/\1 \2 \3/p' | tail -1
}
# The last delivery-to-window times the renderer logged: "P50 P99".
last_latency() {
  raw_output | sed -n 's/.*delivery to the window system p50 \([0-9.]*\) ms p99 \([0-9.]*\) ms.*/\1 \2/p' | tail -1
}

# One run of mask $1: prints "CPU_PERCENT DRAWN_PER_S DROPPED FPS_TEXT P50 P99", the processor
# time taken over $seconds s after 3 s of settling, the lists drawn per second over the whole
# run, the lists dropped at the renderer's queue, the frame-rate text at its end and the
# run's delivery-to-window times.
measure() {
  local mask=$1 logged timed drawn0 dropped0 fps0 t0 t1 c0 c1 drawn dropped fps p50 p99
  logged=$(received_count "lists drawn")
  timed=$(received_count "delivery to the window system")
  read -r drawn0 dropped0 fps0 < <(last_counts)
  t0=$(date +%s.%N)
  command_ok "run $mask"
  sleep 3
  c0=$(cpu_of "$shell_pid")
  sleep "$seconds"
  c1=$(cpu_of "$shell_pid")
  command_ok "stop"
  t1=$(date +%s.%N)
  retry "no count of drawn lists after the run" received_more "lists drawn" "$logged"
  retry "no delivery-to-window times after the run" received_more "delivery to the window system" "$timed"
  read -r drawn dropped fps < <(last_counts)
  read -r p50 p99 < <(last_latency)
  awk -v c0="$c0" -v c1="$c1" -v s="$seconds" -v d="$((drawn - drawn0))" -v t0="$t0" -v t1="$t1" \
    -v x="$((dropped - dropped0))" -v f="$fps" -v p50="$p50" -v p99="$p99" \
    'BEGIN { printf "%.1f %.2f %d %s %s %s\n", 100 * (c1 - c0) / s, d / (t1 - t0), x, f, p50, p99 }'
}

# The first run (mask 6, from start_streaming) is stopped, so the log has counts to start from.
command_ok "stop"
retry "no count of drawn lists" received_more "lists drawn" 0
read -r cpu6 rate6 dropped6 fps6 p50_6 p99_6 < <(measure 6)
read -r cpu30 rate30 dropped30 fps30 p50_30 p99_30 < <(measure 30)
type_line "quit"
wait_exit 10 >/dev/null
[ -n "${BENCH_LOG:-}" ] && raw_output >>"$BENCH_LOG"

bare_percent=$(awk -v b="$bare_cpu" -v s="$seconds" 'BEGIN { printf "%.1f", 100 * b / s }')
printf '\nDisplay end to end, VGA at 30 fps under Xvfb, %s s per run (processor time in %% of one core):\n' "$seconds"
printf '| run | processor | lists drawn/s | dropped | frame-rate text | delivery to window p50 / p99 |\n'
printf '|---|---|---|---|---|---|\n'
printf '| bare imshow loop, 3 windows | %s %% | 30 | - | - | %s / %s ms |\n' "$bare_percent" "$bare_p50" "$bare_p99"
printf '| shell, mask 6 | %s %% | %s | %s | %s | %s / %s ms |\n' "$cpu6" "$rate6" "$dropped6" "$fps6" "$p50_6" "$p99_6"
printf '| shell, mask 30 (six windows) | %s %% | %s | %s | %s | %s / %s ms |\n' "$cpu30" "$rate30" "$dropped30" "$fps30" "$p50_30" "$p99_30"
cat >>"$results" <<RESULTS
display.bare_cpu=$bare_percent
display.bare_p50_ms=$bare_p50
display.bare_p99_ms=$bare_p99
display.m6.cpu=$cpu6
display.m6.drawn_per_s=$rate6
display.m6.dropped=$dropped6
display.m6.fps=$fps6
display.m6.p50_ms=$p50_6
display.m6.p99_ms=$p99_6
display.m30.cpu=$cpu30
display.m30.drawn_per_s=$rate30
display.m30.dropped=$dropped30
display.m30.fps=$fps30
display.m30.p50_ms=$p50_30
display.m30.p99_ms=$p99_30
RESULTS
