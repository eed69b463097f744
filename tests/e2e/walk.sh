#!/usr/bin/env bash
# A new user's walk on a display: search, select, run and look; tune the colour scale and
# the display size and see both on screen; dump five frames and read the file back; stop,
# deselect and quit.
source "$(dirname "$0")/lib.sh"

N="QRX100A"
start_shell "$N:320x240"
P="LumoraShell>"
wait_for "$P"
type_line "search"
wait_for_line "0) source name : $N, serialNumber : LM0536240000, uri : sim:0"
select_camera 0
P="$N:"
expect_after "$P" "run" "-> result : success"
wait_window "^$N Depth  x:160, y:120, d:[0-9]+$"
wait_window "^$N Amplitude  x:160, y:120, a:[0-9]+$"
depth=$(xdo search --name "^$N Depth" | head -1)
height() { xdo getwindowgeometry --shell "$depth" | sed -n 's/^HEIGHT=//p'; }
full=$(height)

# The depth image's colours, read from the middle of the window raised over the others.
colours() {
  local WIDTH
  eval "$(xdo getwindowgeometry --shell "$depth")"
  xdo windowraise "$depth"
  sleep 0.5
  python3 "$(dirname "$0")/xwd_colours.py" "$WORKDIR/Xvfb_screen0" $(((WIDTH - 320) / 2 + 1)) 60 318 160
}
read -r distinct _ < <(colours)
((distinct >= 100)) || fail "the depth window shows only $distinct colours"
# A colour scale that ends at 1 mm paints every measured depth in the far colour.
expect_after "$P" "set scale_rgb_max 1" "-> result : success"
one_colour() { read -r _ share < <(colours) && python3 -c "import sys; sys.exit(float('$share') < 0.8)"; }
retry "the colour scale did not change the depth window" one_colour
expect_after "$P" "set scale_rgb_max 7000" "-> result : success"

# The display size only ever scales down: 160x120 shrinks the window by 120 rows, 640x480
# leaves the 320x240 frames at their own size.
expect_after "$P" "set display_resolution 0" "-> result : success"
shrunk() { [ "$(height)" -eq $((full - 120)) ]; }
retry "the display size did not shrink the window" shrunk
expect_after "$P" "set display_resolution 2" "-> result : success"
own_size() { [ "$(height)" -eq "$full" ]; }
retry "the window did not return to the frame's own size" own_size

# A dump of five depth + amplitude frames, read back with the inspector.
type_line "set frame_dump 1 5"
wait_for "Frame dump finished!"
retry "no dump file" compgen -G "$WORKDIR/${N}_LM0536240000_framedump_*.lmr"
file=$(basename "$(compgen -G "$WORKDIR/${N}_LM0536240000_framedump_*.lmr" | head -1)")
type_line ""
type_line "get frame_dump $file"
wait_for_line "    - This is our latest lmr file. Keep going!"
wait_for_count "  - [Reading Amplitude frame data...]" 5

expect_after "$P" "stop" "-> result : success"
wait_no_window "^$N "
expect_after "$P" "deselect" "-> result : success"
type_line "quit"
status=$(wait_exit 10)
[ "$status" = 0 ] || fail "exit status $status"
check_terminal_restored
echo "walk: passed"
