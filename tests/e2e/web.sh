#!/usr/bin/env bash
# The live view in a real browser (headless chromium). With no display at all, the 3-D view
# gets thinned point clouds, at most ten a second; the same session records depth and
# amplitude, which lmr exports, and the view goes off with its port. The recording
# replayed as a camera with the windows on: the page shows pictures that update, a click
# on the Depth picture reads the depth the recording holds at that pixel of the frame
# shown, and the lossless pictures the page decodes are lmr's export of the same record,
# pixel for pixel. (Requests without the token are web_limits.sh's.)
source "$(dirname "$0")/web_lib.sh"
OK="-> result : success"

start_piped "QRX100A:160x120" 0
start_web
say search "select 0" "run 8"
wait_out "$OK" 3
checks cloud "$URL"
say stop "run 6"
wait_out "$OK" 5
say "set frame_dump 1 5"
retry "no \"Frame dump finished!\"" out_has "Frame dump finished!"
say "set web_view off"
wait_out "$OK" 7
port_free || fail "the port is still bound after \"set web_view off\""
say stop
end_piped
mv "$(dump_file)" "$WORKDIR/rec.lmr"
"$LMR_BIN" export "$WORKDIR/rec.lmr" "$WORKDIR/export" >/dev/null || fail "lmr export"

start_piped "replay:$WORKDIR/rec.lmr" 1
start_web
say search "select 0" "run 6"
wait_out "$OK" 3
wait_window "^QRX100A Depth"
checks page "$URL"
checks click "$URL" "$WORKDIR/rec.lmr"
checks png "$URL&png" "$WORKDIR/export"
end_piped
port_free || fail "the port is still bound after the end of the script"
echo "web: passed"
