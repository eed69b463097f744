#!/usr/bin/env bash
# A packaged shell in a scripted session: search, select, run, a dump of five depth +
# amplitude lists, stop, quit; then the package's lmr reads the dump, and so does the
# packaged Python module when an interpreter is given (which finds the module itself).
# Usage: session.sh path/to/lumora-shell path/to/lmr [path/to/python3]
source "$(dirname "$0")/../e2e/lib.sh" "$1"
LMR=$(realpath "${2:?usage: $0 path/to/lumora-shell path/to/lmr [path/to/python3]}")
PYTHON=${3:-}

out="$WORKDIR/session.out"
fifo="$WORKDIR/session.in"
mkfifo "$fifo"
(cd "$WORKDIR" && LUMORA_SIM_DEVICES=QRX100A:160x120 "$SHELL_BIN" <"$fifo" >"$out" 2>&1) &
pid=$!
exec 4>"$fifo"
# The start of the session and its end, without most of the console read-out between.
report() {
  echo "FAIL: $1; the session:" >&2
  head -c 1500 "$out" | cat -A >&2
  echo "..." >&2
  tail -c 1500 "$out" | cat -A >&2
  exit 1
}
# Waits up to 30 s for the session to show a line matching the extended regular expression $1.
wait_output() {
  local deadline=$((SECONDS + 30))
  until grep -qE -- "$1" "$out"; do
    ((SECONDS < deadline)) || report "no \"$1\""
    sleep 0.1
  done
}

printf 'search\nselect 0\nrun\n' >&4
# The dump sink hears of the running camera from the library's thread, after the result.
wait_output "FrameDumpSink:onLumoraCameraState:[0-9]+ source\\(sim:0\\) state = 3"
printf 'set frame_dump 1 5\n' >&4
wait_output "Frame dump finished!"
printf 'stop\nquit\n' >&4
exec 4>&-
wait "$pid" || report "exit status $?"

dump=$(compgen -G "$WORKDIR/QRX100A_*_framedump_*.lmr") || report "no dump file"
status=0
"$LMR" info "$dump" >"$WORKDIR/info" || status=$?
# Under emulation a list may be dropped rather than hold the camera up: a finding, not an
# error.
((status <= 1)) || report "lmr info: status $status: $(cat "$WORKDIR/info")"
for line in "dump_frame_count +5" "dump_frame_type +1 \(Depth \+ Amplitude\)" "records +[1-5] found, 5 announced" \
  "frame +160 x 120, 2 bytes per element, .*"; do
  grep -Eq "^ *$line\$" "$WORKDIR/info" || report "lmr info: no \"$line\": $(cat "$WORKDIR/info")"
done
if [ -n "$PYTHON" ]; then
  LUMORA_SIM_DEVICES=QRX100A:160x120 "$PYTHON" "$(dirname "$0")/lumora_session.py" "$dump" >"$WORKDIR/python" 2>&1 ||
    report "the Python module: $(cat "$WORKDIR/python")"
  cat "$WORKDIR/python"
fi
echo "session: passed"
