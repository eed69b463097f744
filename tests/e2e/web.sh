#!/usr/bin/env bash
# The live view in a real browser (headless chromium): a recording is made, exported by lmr,
# then replayed as a camera. With no display at all the page shows nothing without the token
# and, with it, pictures that update, and a click on the Depth picture reads the depth the
# recording holds at that pixel of the frame shown. With the windows on, the lossless
# pictures the page decodes are lmr's export of the same record, pixel for pixel. The 3-D
# view gets thinned point clouds, at most ten a second.
source "$(dirname "$0")/web_lib.sh"

start_piped "QRX100A:160x120" 0
say search
say "select 0"
say "run 6"
wait_results 1
say "set frame_dump 1 5"
retry "no \"Frame dump finished!\"" out_has "Frame dump finished!"
say stop
end_piped
mv "$WORKDIR"/QRX100A_*_framedump_*.lmr "$WORKDIR/rec.lmr"
"$LMR_BIN" export "$WORKDIR/rec.lmr" "$WORKDIR/export" >/dev/null || fail "lmr export"

start_piped "replay:$WORKDIR/rec.lmr" 0
start_web
say search
say "select 0"
say "run 6"
wait_results 2
checks page "$URL"
checks click "$URL" "$WORKDIR/rec.lmr"
say "set web_view off"
wait_results 3
port_free || fail "the port is still bound after \"set web_view off\""
end_piped

start_piped "replay:$WORKDIR/rec.lmr" 1
start_web
say search
say "select 0"
say "run 6"
wait_results 2
wait_window "^QRX100A Depth"
checks png "$URL&png" "$WORKDIR/export"
end_piped
port_free || fail "the port is still bound after the end of the script"

start_piped "QRX100A:160x120" 0
start_web
say search
say "select 0"
say "run 8"
wait_results 2
checks cloud "$URL"
end_piped
echo "web: passed"
