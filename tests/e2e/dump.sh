#!/usr/bin/env bash
# Frame dumps through the real shell: the request errors, a dump of 5 frames with embedded
# lines, whole and consistent for lmr, and reading a dump back. (Faults during dumps, a full
# disk among them, are faults.sh's; 300-list dumps in every mode are the soak's.)
source "$(dirname "$0")/lib.sh"

LMR_BIN=$(dirname "$SHELL_BIN")/../lmr/lmr
# The record size of mode 0 for a 160 x 120 camera with its 160-byte embedded line.
RECORD=(38575)

# Waits for the line after the command $2 at the prompt $1 to be the dump sink's log
# entry $3 (its line number aside).
expect_log_after() {
  type_line "$2"
  retry "no log entry \"$3\" after \"$1 $2\"" log_follows "$1 $2" "$3"
}
log_follows() { [[ "$(line_after "$1")" =~ ^[EDIW]/FrameDumpSink:[0-9]+:\ (.*)$ && "${BASH_REMATCH[1]}" == "$2" ]]; }

# "Frame dump finished!" comes from the camera's thread, also right after a prompt.
finished() { screen | grep -cF "Frame dump finished!" || true; }
finished_at_least() { [ "$(finished)" -ge "$1" ]; }

# True when the one dump file holds $2 whole records of $1 bytes.
dump_complete() {
  local files=("$WORKDIR"/QRX100A_LM*_framedump_[0-9]*.lmr) size
  [ ${#files[@]} -eq 1 ] && [ -f "${files[0]}" ] || return 1
  [[ ${files[0]##*/} =~ ^QRX100A_LM[0-9]+_framedump_[0-9]{14}\.lmr$ ]] || fail "file name ${files[0]##*/}"
  size=$(stat -c %s "${files[0]}")
  ((size - 69 == $1 * $2))
}

# Dumps $2 lists in mode $1 at the prompt, waits for the file, moves it to $3 and has lmr
# find nothing in it: every list of a running camera is there, with its embedded line.
dump() {
  local finished results report
  finished=$(finished)
  results=$(count_lines "-> result : success")
  # The writer's log entries may come before the result line.
  type_line "set frame_dump $1 $2"
  wait_for_count "-> result : success" $((results + 1))
  retry "no \"Frame dump finished!\" for mode $1" finished_at_least $((finished + 1))
  retry "no complete dump of $2 in mode $1" dump_complete "${RECORD[$1]}" "$2"
  mv "$WORKDIR"/QRX100A_LM*_framedump_*.lmr "$WORKDIR/$3"
  report=$("$LMR_BIN" info "$WORKDIR/$3") || fail "lmr info of the mode $1 dump: $report"
}

# Starts the shell with a small QRX100A and selects it; the prompt is then P.
open_camera() {
  start_shell "QRX100A:160x120"
  wait_for "LumoraShell>"
  type_line "search"
  type_line "select 0"
  P="QRX100A:"
  wait_for_line "$P"
}

open_camera
expect_log_after "$P" "set frame_dump 0 5" "Camera is not in running status!"
expect_after "$P" "run 30" "-> result : success"
expect_log_after "$P" "set frame_dump 4 5" \
  "Not supported dump mode! [0: Depth only, 1: Depth + Amplitude, 2: Pointcloud, 3: Intensity Pointcloud]"
expect_log_after "$P" "set frame_dump 0 301" "Not supported frame count! [1 ~ 300]"
expect_after "$P" "set frame_dump 0 five" "-> result : invalid parameter"
expect_after "$P" "stop" "-> result : success"
expect_after "$P" "run 2" "-> result : success"
expect_log_after "$P" "set frame_dump 1 5" "Not support frame dump mode!"
# Debug lines show the accepted parts of a request; the first prints the mask as the mode.
expect_after "$P" "set log_level 4" "-> result : success"
expect_log_after "$P" "set frame_dump 1 5" "dump mode (2) wanted frame count (5)"
wait_for_after "$(line_after "$P set frame_dump 1 5")" \
  "$(screen | grep -o 'D/FrameDumpSink:[0-9]*: Dump frame ==> Depth + Amplitude (D / A)' | tail -1)"
expect_after "$P" "set log_level 1" "-> result : success"
expect_after "$P" "stop" "-> result : success"
expect_after "$P" "run 2" "-> result : success"
# The window opens first: under ThreadSanitizer Qt's start takes the cores for a while, and a
# camera held up for 100 ms would end a dump early.
wait_window "^QRX100A Depth"

dump 0 5 "mode0.lmr"
[ "$(od -An -tu1 -j2 -N1 "$WORKDIR/mode0.lmr" | tr -d ' ')" = 1 ] || fail "no embedded lines in the dump"
[ "$(finished)" = 1 ] || fail "not one \"Frame dump finished!\" for the dump"

expect_after "$P" "get frame_dump mode0.lmr" "[Dump Header]"
wait_for_count "  - [Reading Depth frame data...]" 5
for line in "    - This is our latest lmr file. Keep going!" "  - dump_header.embedded_line_control (0x1)" \
  "  - source_descriptor.source_type (sim)" "  - camera_descriptor.camera_name (QRX100A)" "[Frame header] ==> 4"; do
  [ "$(count_lines "$line")" = 1 ] || fail "not one line \"$line\""
done
type_line "quit"
[ "$(wait_exit 10)" = 0 ] || fail "exit status after dumping"

check_terminal_restored
echo "dump: passed"
