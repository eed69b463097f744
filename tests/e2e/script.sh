#!/usr/bin/env bash
# Commands from a pipe: each line shown after its prompt and run as typed, comments
# skipped, "!N" recalled, no control sequences, no busy wait while the pipe is quiet, and
# the end of the input closing a running camera, keeping what a dump under way captured
# and ending the process with status 0.
source "$(dirname "$0")/lib.sh"

out="$WORKDIR/script.out"
fifo="$WORKDIR/script.in"
mkfifo "$fifo"
start_display
mkdir -p -m 700 "$WORKDIR/runtime"
(cd "$WORKDIR" && DISPLAY=$XDISPLAY XDG_RUNTIME_DIR="$WORKDIR/runtime" QT_XCB_GL_INTEGRATION=none \
  LUMORA_SIM_DEVICES=QRX100A:160x120 "$SHELL_BIN" <"$fifo" >"$out" 2>"$WORKDIR/script.err") &
pid=$!
exec 4>"$fifo"
printf 'search\n# select 5\nselect 0\r\n\nhistory\n!1\nrun 6\n' >&4
retry "no result of run" grep -qx -- "-> result : success" "$out"
# The shell waits on the quiet pipe: it must not spin.
ticks_before=$(awk '{print $14 + $15}' "/proc/$pid/stat")
sleep 2
ticks_after=$(awk '{print $14 + $15}' "/proc/$pid/stat")
((ticks_after - ticks_before < 100)) || fail "the shell used $((ticks_after - ticks_before)) ticks in 2 s on a quiet pipe"
printf 'set frame_dump 0 300\n' >&4
# A header, the embedded line (a frame width of bytes) and the depth block.
record=$((15 + 160 + 160 * 120 * 2))
dump_size() { stat -c %s "$(compgen -G "$WORKDIR/*.lmr" | head -1)" 2>/dev/null || echo 0; }
has_record() { (($(dump_size) >= 69 + record)); }
retry "no frame in the dump" has_record
printf 'get width' >&4
exec 4>&-
deadline=$((SECONDS + 10))
while kill -0 "$pid" 2>/dev/null && ((SECONDS < deadline)); do sleep 0.1; done
kill -0 "$pid" 2>/dev/null && fail "the shell did not end with its input"
wait "$pid" || fail "exit status $? at the end of the input"

grep -q $'\e' "$out" && fail "a control sequence in the output: $(cat -A "$out")"
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
mapfile -t got < <(tr -d '\r' <"$out" | grep -v -e '^onLumora' -e '^FrameDumpSink:' -e '^E/')
[ "${got[*]}" = "${expected[*]}" ] || fail "transcript: $(printf '\n  %s' "${got[@]}")"
# The end of the input stopped and closed the camera, and the dump kept its frames.
grep -q "state = 2" <(sed -n '/get width/,$p' "$out") || fail "the camera was not stopped at the end of the input"
grep -q "state = 0" <(sed -n '/get width/,$p' "$out") || fail "the camera was not released at the end of the input"
size=$(dump_size)
((size >= 69 + record && (size - 69) % record == 0)) || fail "the dump kept no whole frames: $size bytes"
echo "script: passed"
