#!/usr/bin/env bash
# The live display through the real shell on the test's own X server: the windows of a run,
# the read-out in the titles and its move by a click, the colour ramp on screen and the
# colour scale and display size settings seen there, windows closed by "stop" (also after
# one was closed by hand), point-cloud windows; then the same shell without a display.
# (Many run/stop cycles with the windows on are the soak's.)
source "$(dirname "$0")/lib.sh"

P="QRX100A:"
N="QRX100A"
start_streaming
wait_window "^$N framerate$"
wait_window "^$N Depth"
wait_window "^$N Amplitude"
# After ten lists the titles carry the read-out of the frame centre.
wait_window "^$N Depth  x:320, y:240, d:[0-9]+$"
wait_window "^$N Amplitude  x:320, y:240, a:[0-9]+$"

# The depth window shows the colour ramp of a room: many colours, none covering most of it.
# The windows have no window manager to place them: all stand at the top left. The depth
# window is raised over the others and the middle of its image (640 wide, centred under
# highgui's tool bar) read from the server's screen.
depth=$(xdo search --name "^$N Depth" | head -1)
height() { xdo getwindowgeometry --shell "$depth" | sed -n 's/^HEIGHT=//p'; }
full=$(height)
# Distinct colours and the largest colour's share in the middle of the depth image.
colours() {
  local WIDTH
  eval "$(xdo getwindowgeometry --shell "$depth")"
  xdo windowraise "$depth"
  sleep 0.5
  python3 "$(dirname "$0")/xwd_colours.py" "$WORKDIR/Xvfb_screen0" $(((WIDTH - $1) / 2 + 1)) 60 $(($1 - 2)) "$2"
}
read -r distinct share < <(colours 640 400)
((distinct >= 200)) || fail "the depth window shows only $distinct colours"
python3 -c "import sys; sys.exit(float('$share') > 0.5)" || fail "one colour covers $share of the depth window"
# A colour scale that ends at 1 mm paints every measured depth in the far colour.
expect_after "$P" "set scale_rgb_max 1" "-> result : success"
one_colour() { read -r _ share < <(colours 640 400) && python3 -c "import sys; sys.exit(float('$share') < 0.8)"; }
retry "the colour scale did not change the depth window" one_colour
expect_after "$P" "set scale_rgb_max 7000" "-> result : success"
# The display size only ever scales down: 160x120 takes 360 rows off the window, 640x480
# leaves the frames at their own size.
expect_after "$P" "set display_resolution 0" "-> result : success"
shrunk() { [ "$(height)" -eq $((full - 360)) ]; }
retry "the display size did not shrink the window" shrunk
expect_after "$P" "set display_resolution 2" "-> result : success"
own_size() { [ "$(height)" -eq "$full" ]; }
retry "the window did not return to the frame's own size" own_size

# A left click moves the read-out point; two clicks 40 pixels apart read 40 apart.
eval "$(xdo getwindowgeometry --shell "$depth")"
readout() { xdo getwindowname "$depth" | sed -n 's/.*  x:\([0-9]*\), y:\([0-9]*\), d:.*/\1 \2/p'; }
clicked_at() { [ "$(readout)" != "$1" ] && [ -n "$(readout)" ]; }
xdo mousemove --window "$depth" $((WIDTH / 2 - 100)) 200 click 1
retry "a click did not move the read-out" clicked_at "320 240"
read -r x1 y1 < <(readout)
xdo mousemove --window "$depth" $((WIDTH / 2 - 60)) 200 click 1
retry "a second click did not move the read-out" clicked_at "$x1 $y1"
read -r x2 y2 < <(readout)
[ $((x2 - x1)) -eq 40 ] && [ "$y2" -eq "$y1" ] || fail "clicks 40 apart read ($x1,$y1) and ($x2,$y2)"

expect_after "$P" "stop" "-> result : success"
wait_no_window "^$N "

# Point clouds: the intensity cloud has a depth view and an intensity view.
expect_after "$P" "run 24" "-> result : success"
wait_window "^$N PCL-Depth"
wait_window "^$N IPCL-Depth"
wait_window "^$N IPCL-Amplitude"
has_window "^$N Depth" && fail "a depth window opened for mask 24"
# A window closed by hand: the stop closes the others and does not fail.
DISPLAY=$XDISPLAY python3 "$(dirname "$0")/close_window.py" "$(xdo search --name "^$N PCL-Depth" | head -1)"
expect_after "$P" "stop" "-> result : success"
wait_no_window "^$N "

# Qt's notices are log entries, shown only from log level 2: the one about the missing
# XDG_RUNTIME_DIR, made when the first window opened, stayed off the terminal.
received "XDG_RUNTIME_DIR" && fail "Qt's notice reached the terminal: $(raw_output | grep -a -m1 XDG_RUNTIME_DIR)"
expect_after "$P" "set log_level 2" "-> result : success"
type_line "quit"
status=$(wait_exit 10)
[ "$status" = 0 ] || fail "exit status $status after the display runs"
# Qt objects of the GUI thread destroyed from another thread make Qt warn.
received "QObject::" && fail "Qt warned at quit: $(raw_output | grep -a -m1 "QObject::")"

# No display: one line says so, the frames are read out on the console, the shell goes on.
# The read-out rewrites the prompt's line, so keys go one at a time with a pause.
NO_DISPLAY=1 open_camera "QRX100A"
expect_after "$P" "run" "-> result : success"
wait_for_bytes "no display found: the frames are read out on the console"
retry "no console read-out" received $'\rfps : '
wait_for_bytes ", depth(320,240) : "
wait_for_bytes ", amplitude(320,240) : "
[ "$(received_count "no display found")" -eq 1 ] || fail "the no-display line came more than once"
for key in q u i t Enter; do
  tmux_ send-keys "$key"
  sleep 0.3
done
status=$(wait_exit 10)
[ "$status" = 0 ] || fail "exit status $status without a display"
check_terminal_restored
echo "display: passed"
