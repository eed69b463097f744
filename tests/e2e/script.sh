#!/usr/bin/env bash
# Commands from a pipe: each line shown after its prompt and run as typed, comments
# skipped, "!N" recalled, no control sequences, no busy wait while the pipe is quiet, and
# the end of the input closing a running camera, keeping what a dump under way captured
# and ending the process with status 0.
source "$(dirname "$0")/lib.sh"

start_piped QRX100A:160x120 1
say search "# select 5" $'select 0\r' "" history '!1'
retry "no answer to the recalled search" grep -q -- "-> result : invalid operation" "$OUT"
# The shell waits on the quiet pipe: it must not spin. (Measured before the camera runs,
# whose frames and windows cost what they cost, under emulation most of a core.)
sleep 0.5
ticks_before=$(awk '{print $14 + $15}' "/proc/$SHELL_PID/stat")
sleep 2
ticks_after=$(awk '{print $14 + $15}' "/proc/$SHELL_PID/stat")
((ticks_after - ticks_before < 100)) || fail "the shell used $((ticks_after - ticks_before)) ticks in 2 s on a quiet pipe"
say "run 6"
retry "no result of run" grep -qx -- "-> result : success" "$OUT"
say "set frame_dump 0 300"
has_record() { [ -n "$(dump_file)" ] && (($(records_of 0 "$(dump_file)") > 0)); }
retry "no frame in the dump" has_record
printf 'get width' >&8
end_piped

grep -q $'\e' "$OUT" && fail "a control sequence in the output: $(cat -A "$OUT")"
expected=(
  "LumoraShell> search"
  "0) source name : QRX100A, serialNumber : LM0536240000, uri : sim:0"
  "LumoraShell> select 0"
  "selected device(QRX100A:LM0536240000)"
  "QRX100A: "
  "QRX100A: history"
  "1 search"
  "2 select 0"
  "3 history"
  "QRX100A: !1"
  "search"
  "-> result : invalid operation"
  "QRX100A: run 6"
  "-> result : success"
  "QRX100A: set frame_dump 0 300"
  "-> result : success"
  "QRX100A: get width"
  "-> result : width, 160"
)
# Without the sinks' traces and the dump's log lines, which come from other threads.
mapfile -t got < <(tr -d '\r' <"$OUT" | grep -v -e '^onLumora' -e '^FrameDumpSink:' -e '^E/')
[ "${got[*]}" = "${expected[*]}" ] || fail "transcript: $(printf '\n  %s' "${got[@]}")"
# The end of the input stopped and closed the camera, and the dump kept its frames.
grep -q "state = 2" <(sed -n '/get width/,$p' "$OUT") || fail "the camera was not stopped at the end of the input"
grep -q "state = 0" <(sed -n '/get width/,$p' "$OUT") || fail "the camera was not released at the end of the input"
whole_records 0 "$(dump_file)" || fail "the dump kept no whole frames: $(stat -c %s "$(dump_file)") bytes"
echo "script: passed"
