#!/usr/bin/env bash
# Faults injected into running cameras through the simulated library's "sim_fault" key, and
# unplugs, a full disk and files changed under the shell, in scripted sessions: each fault
# gets its line, the dump files hold what they say, and the shell answers afterwards and
# ends with status 0.
source "$(dirname "$0")/lib.sh"

VERSION="v2.3.0 : 2026-11-21"

# The shell still answers a command at once.
answers() { expect_out version "$VERSION"; }
has_a_record() { has_dump && (($(records_of 1 "$(dump_file)") > 0)); }
# Waits for the writer's line that the dump holds fewer frames than asked for, with the text
# $2, then for the capture's "Frame dump finished!" unless $3 says "unplugged"; moves the
# file to $1.
dump_ends() {
  wait_out "frames asked for" $((asked + 1))
  grep -aF "frames asked for" "$OUT" | tail -1 | grep -qF -- "$2" ||
    fail "the dump did not end with \"$2\": $(grep -aF "frames asked for" "$OUT" | tail -1)"
  [ "${3:-}" = unplugged ] || wait_out "Frame dump finished!" $((finished + 1))
  mv "$(dump_file)" "$WORKDIR/$1"
}

# --- Faults on a running camera, dumps under them, unplugs while dumping and prepared.
start_piped "QRX100A:160x120,QRX100A:160x120" 1
say search "select 0"
expect_out "run 6" "-> result : success"
sleep 1 # the windows open meanwhile
# A clean dump of a running camera: every frame asked for, and nothing for lmr to find.
begin_dump "set frame_dump 1 10"
dump_whole clean.lmr 1 10
lmr_says clean.lmr 0 "10 found, 10 announced"
begin_dump "set frame_dump 0 5"
dump_whole depth.lmr 0 5
# A list without amplitude: left out with a line, its index skipped.
begin_dump "set frame_dump 1 30" "set sim_fault 0:missing:4"
dump_ends missing.lmr "holds 29 of the 30 frames asked for"
wait_out "No frame for this dump mode in the frame list! Let's skip!" 1
lmr_says missing.lmr 1 "1 lists skipped"
# Six lists without an embedded line: the writer gives up at the next one, and removes the
# file named framedump.lmr, not its own.
echo x >"$WORKDIR/framedump.lmr"
begin_dump "set frame_dump 1 30" "set sim_fault 0:no_line:6"
dump_ends gave_up.lmr "of the 30 frames asked for"
[ "$(out_count "Something wrong.. cannot get embedded data line in this time! Let's skip!")" = 6 ] ||
  fail "not six embedded-line failures"
[ -e "$WORKDIR/framedump.lmr" ] && fail "framedump.lmr was not removed"
(($(records_of 1 "$WORKDIR/gave_up.lmr") <= 10)) || fail "the writer did not give up"
# Lists without a frame, empty, of 0 x 0, of every type, while the windows show them and
# while the console reads them out.
expect_out "stop" "-> result : success"
expect_out "run 30" "-> result : success"
for display in on off; do
  expect_out "set display $display" "-> result : success"
  for fault in 0:missing:2 0:missing:16 0:empty:3 0:zero_size:3; do
    expect_out "set sim_fault $fault" "-> result : success"
    sleep 0.2 # for the lists to be drawn
    answers
  done
done
expect_out "set sim_fault 0:stall" "-> result : invalid parameter"
expect_out "set sim_fault 7:empty" "-> result : no such device"
expect_out "set sim_fault 1:empty" "-> result : not ready"
# A stall of 3 s: the writer ends after 100 ms without a list, the capture after the stall.
begin_dump "set frame_dump 1 30" "set sim_fault 0:stall:3000"
wait_out "frames asked for" $((asked + 1))
answers
dump_ends stalled.lmr "of the 30 frames asked for"
# 1000 error callbacks, each traced by both sinks (waited for generously: once on a loaded
# machine none had come within 10 s).
expect_out "set sim_fault 0:errors:1000" "-> result : success"
RETRY_SECONDS=60 wait_out "onLumoraCameraError:388 source(sim:0) error = 1" 1000
RETRY_SECONDS=60 wait_out "FrameDumpSink:onLumoraCameraError" 1000
answers
# The dump file removed while it is written.
begin_dump "set frame_dump 1 60"
retry "no dump file" has_dump
rm "$(dump_file)"
wait_out "was removed while it was written!" 1
wait_out "Frame dump finished!" $((finished + 1))
# Unplugged during a dump: the error, the camera's stop and release, the dump's end.
begin_dump "set frame_dump 1 300"
retry "no record in the dump" has_a_record
expect_out "set sim_detach 0" "onDetachedLumoraSource(sim:0)"
wait_out "onLumoraCameraError:388 source(sim:0) error = 10" 1
dump_ends unplugged.lmr "of the 300 frames asked for" unplugged
lmr_says unplugged.lmr 1 "of the 300 announced records are missing"
expect_out "run" "-> result : no such device"
expect_out "deselect" "-> result : success"
# Unplugged while it is being prepared, and a device gone between search and select.
say search "select 0"
expect_out "set sim_detach 1" "onDetachedLumoraSource(sim:1)"
wait_out "source(sim:1) state = 0" 2
expect_out "run" "-> result : no such device"
expect_out "deselect" "-> result : success"
expect_out "set sim_attach QRX100A:160x120" "onAttachedLumoraSource(sim:2)"
say search
expect_out "set sim_detach 2" "onDetachedLumoraSource(sim:2)"
expect_out "select 0" "-> result : fail"
answers
say quit
end_piped

# --- Unplugs during the run/stop test and during a replay; replay files changed on disk.
cp "$WORKDIR/clean.lmr" "$WORKDIR/cut.lmr"
cp "$WORKDIR/clean.lmr" "$WORKDIR/rewritten.lmr"
start_piped "QRX100A:160x120,replay:clean.lmr,replay:cut.lmr,replay:rewritten.lmr" 1
say search "select 0"
expect_out "run 6" "-> result : success"
expect_out "_run_stop_test" "-> result : success"
sleep 1
expect_out "set sim_detach 0" "run_stop test count = "
expect_out "stop" "-> result : no such device"
expect_out "deselect" "-> result : success"
expect_out "select 1" "selected device(QRX100A:"
expect_out "run 6" "-> result : success"
expect_out "set sim_detach 1" "onLumoraCameraError:388 source(replay:1) error = 10"
expect_out "deselect" "-> result : success"
# Files cut short or rewritten while they play: the lists in memory play on, and a later
# select of the changed file is refused.
for device in 2 3; do
  expect_out "select $device" "selected device(QRX100A:"
  expect_out "run 6" "-> result : success"
  sleep 1 # the windows open meanwhile
  [ $device = 2 ] && truncate -s 1000 "$WORKDIR/cut.lmr"
  [ $device = 3 ] && cp "$WORKDIR/depth.lmr" "$WORKDIR/rewritten.lmr"
  begin_dump "set frame_dump 1 15"
  dump_whole "replayed$device.lmr" 1 15
  expect_out "deselect" "-> result : success"
  expect_out "select $device" "-> result : fail"
done
wait_out "replay:2: cannot open \"cut.lmr\": record 0 at byte 69 is cut short" 1
wait_out "replay:3: cannot open \"rewritten.lmr\": the file has changed since the device list was read" 1
answers
say quit
end_piped

# --- A full disk (a file size limit of 100 KiB): the third record fails, the error is
# logged, and the next dump starts afresh.
start_piped "QRX100A:160x120" 1 ulimit -f 100
say search "select 0"
expect_out "run 2" "-> result : success"
sleep 1 # the windows open meanwhile
begin_dump "set frame_dump 0 5"
dump_ends full.lmr "holds 2 of the 5 frames asked for"
wait_out "fail to write file! (File too large)" 1
begin_dump "set frame_dump 0 2"
dump_whole small.lmr 0 2
lmr_says small.lmr 0 "2 found, 2 announced"
answers
say quit
end_piped
echo "faults: passed"
