#!/usr/bin/env bash
# Frame dumps through the real shell, then played back as cameras. Recording: the refusals
# of dump requests and their debug lines, a dump in each mode of a small simulated camera
# with embedded lines (the depth one whole and consistent for lmr), and the inspector
# reading it back. Playing: the four files as replay devices, each dumped again after a
# refused mask; every record of a second dump must be the original record with its
# timestamp, byte for byte. On the way, the replay's windows and the read-out at their
# centre. (Faults during dumps, a full disk among them, are faults.sh's; 300-list dumps in
# every mode are the soak's.)
source "$(dirname "$0")/lib.sh"

MASKS=(2 6 8 16)
WINDOWS=(Depth Depth PCL-Depth IPCL-Depth)
DUMPFILE="$(dirname "$0")/dumpfile.py"

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
has_whole_dump() { [ -n "$(dump_file)" ] && whole_records "$1" "$(dump_file)"; }

# Dumps 5 lists in mode $1 and moves the file to $2, once the writer has finished it: named
# by the camera, its serial number and the time, whole records, one "Frame dump finished!".
dump() {
  local before results file
  before=$(finished)
  results=$(count_lines "-> result : success")
  type_line "set frame_dump $1 5"
  wait_for_count "-> result : success" $((results + 1))
  retry "no \"Frame dump finished!\" for mode $1" finished_at_least $((before + 1))
  retry "no whole dump in mode $1" has_whole_dump "$1"
  sleep 0.3 # the writer ends 100 ms after its last list
  file=$(dump_file)
  [[ ${file##*/} =~ ^QRX100A_LM[0-9]+_framedump_[0-9]{14}\.lmr$ ]] || fail "file name ${file##*/}"
  whole_records "$1" "$file" || fail "the dump in mode $1 did not end whole"
  [ "$(finished)" = $((before + 1)) ] || fail "not one \"Frame dump finished!\" for the dump"
  mv "$file" "$WORKDIR/$2"
}

# Recording: the requests refused, with a camera stopped, running and without the mode's frames.
open_camera "QRX100A:160x120"
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
# A dump in each mode. The windows open first: under ThreadSanitizer Qt's start takes the
# cores for a while, and a camera held up for 100 ms would end a dump early.
for mode in 0 1 2 3; do
  expect_after "$P" "run ${MASKS[$mode]}" "-> result : success"
  wait_window "^QRX100A ${WINDOWS[$mode]}"
  dump $mode "mode$mode.lmr"
  expect_after "$P" "stop" "-> result : success"
done
[ "$(records_of 0 "$WORKDIR/mode0.lmr")" = 5 ] || fail "not 5 records in the depth dump"
[ "$(od -An -tu1 -j2 -N1 "$WORKDIR/mode0.lmr" | tr -d ' ')" = 1 ] || fail "no embedded lines in the dump"
report=$("$LMR_BIN" info "$WORKDIR/mode0.lmr") || fail "lmr info of the depth dump: $report"
# The inspector reads it back.
expect_after "$P" "get frame_dump mode0.lmr" "[Dump Header]"
wait_for_count "  - [Reading Depth frame data...]" 5
for line in "    - This is our latest lmr file. Keep going!" "  - dump_header.embedded_line_control (0x1)" \
  "  - source_descriptor.source_type (sim)" "  - camera_descriptor.camera_name (QRX100A)" "[Frame header] ==> 4"; do
  [ "$(count_lines "$line")" = 1 ] || fail "not one line \"$line\""
done
type_line "quit"
[ "$(wait_exit 10)" = 0 ] || fail "exit status after recording"

# Playing: the four files as devices; each is dumped again while it plays, with the mask
# of its mode, after a refused mask. The mode-1 file shows its windows meanwhile.
start_shell "replay:mode0.lmr,replay:mode1.lmr,replay:mode2.lmr,replay:mode3.lmr"
wait_for "LumoraShell>"
type_line "search"
wait_for "3) source name : QRX100A, serialNumber : LM"
wait_for "uri : replay:3"
for mode in 0 1 2 3; do
  select_camera $mode
  wait_for_line "$P"
  expect_after "$P" "run ${MASKS[$(((mode + 1) % 4))]}" "-> result : invalid parameter"
  expect_after "$P" "run ${MASKS[$mode]}" "-> result : success"
  if [ $mode = 1 ]; then
    wait_window "^QRX100A Amplitude"
    wait_window "^QRX100A Depth  x:80, y:60, d:[0-9]+$"
    title=$(xdo getwindowname "$(xdo search --name "^QRX100A Depth  x:" | head -1)")
    depths=$(python3 "$DUMPFILE" depths "$WORKDIR/mode1.lmr" 80 60)
    grep -qx -- "${title##*, d:}" <<<"$depths" ||
      fail "read-out \"$title\" is not a recorded depth at the centre: $(tr '\n' ' ' <<<"$depths")"
  fi
  dump $mode "replay$mode.lmr"
  expect_after "$P" "stop" "-> result : success"
  expect_after "$P" "deselect" "-> result : success"
  matched=$(python3 "$DUMPFILE" same "$WORKDIR/mode$mode.lmr" "$WORKDIR/replay$mode.lmr" 2>&1) || fail "mode $mode: $matched"
  echo "mode $mode: $matched records of the replay matched"
done
type_line "quit"
[ "$(wait_exit 10)" = 0 ] || fail "exit status after playing"
check_terminal_restored
echo "replay: passed"
