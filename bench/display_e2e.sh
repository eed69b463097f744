#!/usr/bin/env bash
# End-to-end cost of the live display: the shell streaming the simulated QRX100A at 30 fps
# under Xvfb, with mask 6 and then mask 30, beside a bare program that only shows the same
# three windows at 30 fps under the same Xvfb in the same run. Prints a table.
# Usage: bench/display_e2e.sh BUILD_DIR [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")
seconds=${2:-60}
source tests/e2e/lib.sh "$build/shell/lumora-shell"
start_display
mkdir -p -m 700 "$WORKDIR/runtime"

# Processor seconds (user + system) a process has used so far.
cpu_of() { awk -v hz="$(getconf CLK_TCK)" '{ print ($14 + $15) / hz }' "/proc/$1/stat"; }

bare=$(DISPLAY=$XDISPLAY XDG_RUNTIME_DIR=$WORKDIR/runtime QT_XCB_GL_INTEGRATION=none python3 -c '
import resource, subprocess, sys
subprocess.run(sys.argv[1:], check=True)
usage = resource.getrusage(resource.RUSAGE_CHILDREN)
print(usage.ru_utime + usage.ru_stime)' "$build/bench/lumora-bare-imshow" "$seconds")

P="QRX100A:"
start_streaming
shell_pid=$(pgrep -P "$(tmux_ display-message -p '#{pane_pid}')" -x lumora-shell)
expect_after "$P" "set log_level 3" "-> result : success"

# The last "N lists drawn, M dropped at the queue, fps : F" the renderer logged: "N M F".
last_counts() {
  raw_output | sed -n 's/.*: \([0-9]*\) lists drawn, \([0-9]*\) dropped at the queue, fps : \([0-9.]*\).*/\1 \2 \3/p' | tail -1
}

# One run of mask $1: prints "CPU_PERCENT DRAWN_PER_S DROPPED FPS_TEXT", the processor time
# taken over $seconds s after 3 s of settling, the lists drawn per second over the whole run,
# the lists dropped at the renderer's queue, and the frame-rate text at its end.
measure() {
  local mask=$1 logged drawn0 dropped0 fps0 t0 t1 c0 c1 drawn dropped fps
  logged=$(received_count "lists drawn")
  read -r drawn0 dropped0 fps0 < <(last_counts)
  t0=$(date +%s.%N)
  expect_after "$P" "run $mask" "-> result : success"
  sleep 3
  c0=$(cpu_of "$shell_pid")
  sleep "$seconds"
  c1=$(cpu_of "$shell_pid")
  expect_after "$P" "stop" "-> result : success"
  t1=$(date +%s.%N)
  retry "no count of drawn lists after the run" received_more "lists drawn" "$logged"
  read -r drawn dropped fps < <(last_counts)
  awk -v c0="$c0" -v c1="$c1" -v s="$seconds" -v d="$((drawn - drawn0))" -v t0="$t0" -v t1="$t1" \
    -v x="$((dropped - dropped0))" -v f="$fps" 'BEGIN { printf "%.1f %.2f %d %s\n", 100 * (c1 - c0) / s, d / (t1 - t0), x, f }'
}

# The first run (mask 6, from start_streaming) is stopped, so the log has counts to start from.
expect_after "$P" "stop" "-> result : success"
retry "no count of drawn lists" received_more "lists drawn" 0
read -r cpu6 rate6 dropped6 fps6 < <(measure 6)
read -r cpu30 rate30 dropped30 fps30 < <(measure 30)
type_line "quit"
wait_exit 10 >/dev/null

bare_percent=$(awk -v b="$bare" -v s="$seconds" 'BEGIN { printf "%.1f", 100 * b / s }')
ratio=$(awk -v a="$cpu6" -v b="$bare_percent" 'BEGIN { printf "%.2f", a / b }')
met() { awk "BEGIN { exit !($1) }" && echo yes || echo NO; }
printf '\n| %-50s | %12s | %-14s | %-4s |\n' "display end to end, ${seconds} s under Xvfb" measured target met
printf '|%s|%s|%s|%s|\n' "$(printf -- '-%.0s' {1..52})" "$(printf -- '-%.0s' {1..14})" "$(printf -- '-%.0s' {1..16})" "------"
printf '| %-50s | %12s | %-14s | %-4s |\n' "mask 6: frame-rate text at the end" "$fps6" "29 to 31" "$(met "$fps6 >= 29 && $fps6 <= 31")"
printf '| %-50s | %12s | %-14s | %-4s |\n' "mask 6: lists dropped at the renderer queue" "$dropped6" "0" "$(met "$dropped6 == 0")"
printf '| %-50s | %12s | %-14s | %-4s |\n' "mask 6: shell CPU / bare imshow CPU" "${ratio}x" "<= 2.5x" "$(met "$ratio <= 2.5")"
printf '| %-50s | %12s | %-14s | %-4s |\n' "mask 30 (six windows): lists drawn per second" "$rate30" "29 (goal)" "$(met "$rate30 >= 29")"
printf '| %-50s | %12s | %-14s | %-4s |\n' "mask 30: frame-rate text at the end, dropped" "$fps30, $dropped30" "" ""
printf '(this run: shell with mask 6 %s%% of one core, drawing %s lists/s; mask 30 %s%%; bare imshow loop %s%%)\n' \
  "$cpu6" "$rate6" "$cpu30" "$bare_percent"
