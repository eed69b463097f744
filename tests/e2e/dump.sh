#!/usr/bin/env bash
# Frame dumps through the real shell: the request errors, a dump of 5 frames with embedded
# lines, reading a dump back, and a file-size limit standing in for a full disk.
source "$(dirname "$0")/lib.sh"

# The record size of mode 0 for a 160 x 120 camera with its 160-byte embedded line.
RECORD=(38575)
SKIP="annot get embedded data line in this time! Let's skip!"

# Waits for the line after the command $2 at the prompt $1 to be the dump sink's log
# entry $3 (its line number aside).
expect_log_after() {
  type_line "$2"
  retry "no log entry \"$3\" after \"$1 $2\"" log_follows "$1 $2" "$3"
}
log_follows() { [[ "$(line_after "$1")" =~ ^[EDIW]/FrameDumpSink:[0-9]+:\ (.*)$ && "${BASH_REMATCH[1]}" == "$2" ]]; }

skips() { screen | grep -cF -- "$SKIP" || true; }
# "Frame dump finished!" comes from the camera's thread, also right after a prompt.
finished() { screen | grep -cF "Frame dump finished!" || true; }
finished_at_least() { [ "$(finished)" -ge "$1" ]; }

# True when the one dump file holds whole records of $1 bytes which, with the lists
# skipped for want of an embedded line since $3 skips, make $2.
dump_complete() {
  local files=("$WORKDIR"/QRX100A_LM*_framedump_[0-9]*.lmr) size
  [ ${#files[@]} -eq 1 ] && [ -f "${files[0]}" ] || return 1
  [[ ${files[0]##*/} =~ ^QRX100A_LM[0-9]+_framedump_[0-9]{14}\.lmr$ ]] || fail "file name ${files[0]##*/}"
  size=$(stat -c %s "${files[0]}")
  (((size - 69) % $1 == 0 && (size - 69) / $1 + $(skips) - $3 == $2))
}

# Dumps $2 lists in mode $1 at the prompt, waits for the file and moves it to $3.
dump() {
  local before finished results
  before=$(skips)
  finished=$(finished)
  results=$(count_lines "-> result : success")
  # The writer's log entries may come before the result line.
  type_line "set frame_dump $1 $2"
  wait_for_count "-> result : success" $((results + 1))
  retry "no \"Frame dump finished!\" for mode $1" finished_at_least $((finished + 1))
  retry "no complete dump of $2 in mode $1" dump_complete "${RECORD[$1]}" "$2" "$before"
  mv "$WORKDIR"/QRX100A_LM*_framedump_*.lmr "$WORKDIR/$3"
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
expect_after "$P" "run 30" "-> result : success"

# One mode here; 300-list dumps in every mode, checked by lmr, are the soak's.
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

# A file-size limit of 100 KiB: the third record of a mode-0 dump fails, the error is
# logged, the shell goes on, and a smaller dump then works.
FILE_SIZE_LIMIT=100 open_camera
expect_after "$P" "run 2" "-> result : success"
# As in dump(): the writer's log entries may come before the result line.
results=$(count_lines "-> result : success")
type_line "set frame_dump 0 5"
wait_for_count "-> result : success" $((results + 1))
wait_for "Frame dump finished!"
retry "no write error" shows -E '^E/FrameDumpSink:[0-9]+: fail to write file! \(File too large\)$'
type_line ""
rm -f "$WORKDIR"/QRX100A_LM*_framedump_*.lmr
dump 0 2 "small.lmr"
expect_after "$P" "version" "v2.3.0 : 2026-11-21"
type_line "quit"
[ "$(wait_exit 10)" = 0 ] || fail "exit status after a full disk"
check_terminal_restored
echo "dump: passed"
