#!/usr/bin/env bash
# A packaged shell in a scripted session: search, select, run, a dump of five depth +
# amplitude lists, stop, quit; then the package's lmr reads the dump, and so does the
# packaged Python module when an interpreter is given (which finds the module itself).
# Usage: session.sh path/to/lumora-shell path/to/lmr [path/to/python3]
source "$(dirname "$0")/../e2e/lib.sh" "$1"
LMR=$(realpath "${2:?usage: $0 path/to/lumora-shell path/to/lmr [path/to/python3]}")
PYTHON=${3:-}
RETRY_SECONDS=30 # also under emulation

start_piped QRX100A:160x120 0
say search "select 0" run
# The dump sink hears of the running camera from the library's thread, after the result.
retry "no running camera" grep -qE "FrameDumpSink:onLumoraCameraState:[0-9]+ source\\(sim:0\\) state = 3" "$OUT"
say "set frame_dump 1 5"
wait_out "Frame dump finished!" 1
say stop quit
end_piped

[ -n "$(dump_file)" ] || fail "no dump file"
status=0
info=$("$LMR" info "$(dump_file)") || status=$?
# Under emulation a list may be dropped rather than hold the camera up: a finding, not an
# error.
((status <= 1)) || fail "lmr info: status $status: $info"
for line in "dump_frame_count +5" "dump_frame_type +1 \(Depth \+ Amplitude\)" "records +[1-5] found, 5 announced" \
  "frame +160 x 120, 2 bytes per element, .*"; do
  grep -Eq "^ *$line\$" <<<"$info" || fail "lmr info: no \"$line\": $info"
done
if [ -n "$PYTHON" ]; then
  LUMORA_SIM_DEVICES=QRX100A:160x120 "$PYTHON" "$(dirname "$0")/lumora_session.py" "$(dump_file)" >"$WORKDIR/python" 2>&1 ||
    fail "the Python module: $(cat "$WORKDIR/python")"
  cat "$WORKDIR/python"
fi
echo "session: passed"
