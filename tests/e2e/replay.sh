#!/usr/bin/env bash
# Frame dumps through the real shell in scripted sessions, then played back as cameras.
# Recording: the refusals of dump requests and their debug lines, a dump in each mode of a
# small simulated camera with embedded lines (the depth one whole and consistent for lmr),
# and the inspector reading it back. Playing: the four files as replay devices, each dumped
# again after a refused mask; every record of a second dump must be the original record
# with its timestamp, byte for byte. On the way, the replay's windows and the read-out at
# their centre. (Faults during dumps, a full disk among them, are faults.sh's; 300-list
# dumps in every mode are the soak's.)
source "$(dirname "$0")/lib.sh"

MASKS=(2 6 8 16)
WINDOWS=(Depth Depth PCL-Depth IPCL-Depth)
DUMPFILE="$(dirname "$0")/dumpfile.py"
ok="-> result : success" bad="-> result : invalid parameter"

# The line after the last command $1, traces aside.
line_after_command() {
  tr -d '\r' <"$OUT" | grep -v -e '^onLumora' -e '^FrameDumpSink:' | grep -A1 -xF "QRX100A: $1" | tail -1
}
# Sends the request $1 and waits for the dump sink's log entry $2 (its line number aside),
# which must be the next line.
expect_log() {
  expect_out "$1" "$2"
  [ "$(line_after_command "$1" | sed -E 's|^[EDIW]/FrameDumpSink:[0-9]+: ||')" = "$2" ] ||
    fail "not \"$2\" after \"$1\": $(line_after_command "$1")"
}
has_whole_dump() { has_dump && whole_records "$1" "$(dump_file)"; }
# Dumps 5 lists in mode $1 and moves the file to $2 once the writer has finished it: named
# by the camera, its serial number and the time, whole records, one "Frame dump finished!".
dump() {
  local file
  begin_dump "set frame_dump $1 5"
  wait_out "Frame dump finished!" $((finished + 1))
  retry "no whole dump in mode $1" has_whole_dump "$1"
  sleep 0.3 # the writer ends 100 ms after its last list
  file=$(dump_file)
  [[ ${file##*/} =~ ^QRX100A_LM[0-9]+_framedump_[0-9]{14}\.lmr$ ]] || fail "file name ${file##*/}"
  whole_records "$1" "$file" || fail "the dump in mode $1 did not end whole"
  [ "$(out_count "Frame dump finished!")" = $((finished + 1)) ] || fail "not one \"Frame dump finished!\""
  mv "$file" "$WORKDIR/$2"
}

# Recording: the requests refused, with the camera stopped, running and without the mode's
# frames; debug lines show the accepted parts of a request, the first the mask as the mode.
start_piped "QRX100A:160x120" 1
say search
expect_state "select 0" 1
expect_log "set frame_dump 0 5" "Camera is not in running status!"
expect_state "run 30" 3
expect_log "set frame_dump 4 5" \
  "Not supported dump mode! [0: Depth only, 1: Depth + Amplitude, 2: Pointcloud, 3: Intensity Pointcloud]"
expect_log "set frame_dump 0 301" "Not supported frame count! [1 ~ 300]"
expect_out "set frame_dump 0 five" "$bad"
expect_out "stop" "$ok"
expect_state "run 2" 3
expect_log "set frame_dump 1 5" "Not support frame dump mode!"
expect_out "set log_level 4" "$ok"
expect_log "set frame_dump 1 5" "dump mode (2) wanted frame count (5)"
grep -aA1 -F "dump mode (2) wanted frame count (5)" "$OUT" | tail -1 | tr -d '\r' |
  grep -qE '^D/FrameDumpSink:[0-9]+: Dump frame ==> Depth \+ Amplitude \(D / A\)$' || fail "no debug line of the mode"
expect_out "set log_level 1" "$ok"
expect_out "stop" "$ok"
# A dump in each mode. The windows open first: under ThreadSanitizer Qt's start takes the
# cores for a while, and a camera held up for 100 ms would end a dump early.
for mode in 0 1 2 3; do
  expect_state "run ${MASKS[$mode]}" 3
  wait_window "^QRX100A ${WINDOWS[$mode]}"
  dump $mode "mode$mode.lmr"
  expect_out "stop" "$ok"
done
lmr_says mode0.lmr 0 "5 found, 5 announced"
[ "$(od -An -tu1 -j2 -N1 "$WORKDIR/mode0.lmr" | tr -d ' ')" = 1 ] || fail "no embedded lines in the dump"
# The inspector reads it back.
expect_out "get frame_dump mode0.lmr" "[Dump Header]"
wait_out "[Frame header] ==> 4" 1
lines() { tr -d '\r' <"$OUT" | grep -cxF -- "$1" || true; }
[ "$(lines "  - [Reading Depth frame data...]")" = 5 ] || fail "not five depth blocks read"
for line in "    - This is our latest lmr file. Keep going!" "  - dump_header.embedded_line_control (0x1)" \
  "  - source_descriptor.source_type (sim)" "  - camera_descriptor.camera_name (QRX100A)"; do
  [ "$(lines "$line")" = 1 ] || fail "not one line \"$line\""
done
say quit
end_piped

# Playing: the four files as devices; each is dumped again while it plays, with the mask
# of its mode, after a refused mask. The mode-1 file shows its windows meanwhile.
start_piped "replay:mode0.lmr,replay:mode1.lmr,replay:mode2.lmr,replay:mode3.lmr" 1
expect_out search "3) source name : QRX100A, serialNumber : LM0536240000, uri : replay:3"
for mode in 0 1 2 3; do
  expect_state "select $mode" 1
  expect_out "run ${MASKS[$(((mode + 1) % 4))]}" "$bad"
  expect_state "run ${MASKS[$mode]}" 3
  if [ $mode = 1 ]; then
    wait_window "^QRX100A Amplitude"
    wait_window "^QRX100A Depth  x:80, y:60, d:[0-9]+$"
    title=$(xdo getwindowname "$(xdo search --name "^QRX100A Depth  x:" | head -1)")
    depths=$(python3 "$DUMPFILE" depths "$WORKDIR/mode1.lmr" 80 60)
    grep -qx -- "${title##*, d:}" <<<"$depths" ||
      fail "read-out \"$title\" is not a recorded depth at the centre: $(tr '\n' ' ' <<<"$depths")"
  fi
  dump $mode "replay$mode.lmr"
  expect_out "stop" "$ok"
  expect_out "deselect" "$ok"
  matched=$(python3 "$DUMPFILE" same "$WORKDIR/mode$mode.lmr" "$WORKDIR/replay$mode.lmr" 2>&1) || fail "mode $mode: $matched"
  echo "mode $mode: $matched records of the replay matched"
done
say quit
end_piped
echo "replay: passed"
