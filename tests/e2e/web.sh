#!/usr/bin/env bash
# The live view in a real browser (headless chromium). With no display at all, the 3-D view
# gets thinned point clouds, at most ten a second; the same session records depth and
# amplitude, which lmr exports. The recording replayed as a camera, with no display: the page
# shows pictures that update, a click on the Depth picture reads the depth the recording
# holds at that pixel of the frame shown, and the view goes off with its port. With the
# windows on, the lossless pictures the page decodes are lmr's export of the same record,
# pixel for pixel. Measure on the page of a VGA camera facing the simulated wall: the figures
# over an ROI dragged on its Depth picture, against the wall's truth. (Requests without the
# token are web_limits.sh's.)
source "$(dirname "$0")/web_lib.sh"
OK="-> result : success"

start_piped "QRX100A:160x120" 0
start_web
say search "select 0" "run 8"
wait_out "$OK" 3
checks cloud "$URL"
say stop
# The dump sink hears of the stop and of the run from the library's thread, after the answers.
expect_state "run 6" 3
say "set frame_dump 1 5"
retry "no \"Frame dump finished!\"" out_has "Frame dump finished!"
say stop
end_piped
mv "$(dump_file)" "$WORKDIR/rec.lmr"
"$LMR_BIN" export "$WORKDIR/rec.lmr" "$WORKDIR/export" >/dev/null || fail "lmr export"

for display in 0 1; do
  start_piped "replay:$WORKDIR/rec.lmr" $display
  start_web
  say search "select 0" "run 6"
  wait_out "$OK" 3
  if [ $display = 0 ]; then
    checks page "$URL"
    checks click "$URL" "$WORKDIR/rec.lmr"
    say "set web_view off"
    wait_out "$OK" 4
    port_free || fail "the port is still bound after \"set web_view off\""
  else
    wait_window "^QRX100A Depth"
    checks png "$URL&png" "$WORKDIR/export"
  fi
  end_piped
  port_free || fail "the port is still bound after the end of the script"
done

start_piped QRX100A 0
start_web
say search "select 0" "set sim_scene wall:1500:10" "set sim_noise 5" "set quality_frames 10" "run 6"
wait_out "$OK" 6
checks measure "$URL" 10
end_piped
echo "web: passed"
