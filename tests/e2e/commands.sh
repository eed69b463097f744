#!/usr/bin/env bash
# The interpreter in a real terminal: the shell starting and quitting with the default
# devices, none and no transport at all; commands that need a camera, unknown words, the
# forms of "select", "search" while selected, the run argument kept between runs,
# properties, "help" to the byte, "history", and the run/stop stress test refused, running
# and ended by "quit" while frames flow.
source "$(dirname "$0")/lib.sh"

P="LumoraShell>"
for devices in default "" none; do
  if [ "$devices" = default ]; then start_shell; else start_shell "$devices"; fi
  wait_for "$P"
  expect_after "$P" "frobnicate" "-> result : not supported"
  type_line "quit"
  [ "$(wait_exit 10)" = 0 ] || fail "exit status at quit with the devices \"$devices\""
done

# A small frame keeps the camera's rendering light, so that typing keeps pace with the
# stress test's cycle also under ThreadSanitizer.
start_shell "QRX100A:160x120,QRX200AP"
wait_for "$P"

# Without a camera.
for command in run "run 2" stop deselect _run_stop_test "getpl fw_info" "get lenses" "get fov"; do
  expect_after "$P" "$command" "-> result : not supported"
done
for command in Help quitnow " search"; do
  expect_after "$P" "$command" "-> result : not supported"
done
# An empty line runs nothing and prints nothing: the next line is the prompt again.
type_line ""
expect_after "$P" "version" "v2.3.0 : 2026-11-21"
[ "$(line_after "$P")" = "$P version" ] || fail "an empty line printed something"

# "select" in all its failure forms.
expect_after "$P" "select" "-> result : invalid parameter"
expect_after "$P" "select one" "-> result : invalid parameter"
expect_after "$P" "select 1.5" "-> result : invalid parameter"
expect_after "$P" "select 0" "-> result : no such device"
type_line "search"
wait_for_line "0) source name : QRX100A, serialNumber : LM0536240000, uri : sim:0"
wait_for_line "1) source name : QRX200AP, serialNumber : LM2F3C650001, uri : sim:1"
expect_after "$P" "select 5" "-> result : fail"
expect_after "$P" "select -1" "-> result : fail"
expect_after "$P" "select 99999999999" "-> result : fail"
select_camera 0
wait_for_after "$P select 0" "selected device(QRX100A:LM0536240000)"
P="QRX100A:"
expect_after "$P" "select 0" "-> result : already exists"
expect_after "$P" "search" "-> result : invalid operation"

# The run argument: an integer is kept for later runs, anything else reuses the last one.
expect_after "$P" "run 1" "-> result : invalid parameter"
expect_after "$P" "run" "-> result : invalid parameter"
expect_after "$P" "run abc" "-> result : invalid parameter"
expect_after "$P" "run 2" "-> result : success"
expect_after "$P" "run" "-> result : already running"
expect_after "$P" "stop" "-> result : success"
expect_after "$P" "stop" "-> result : invalid operation"
expect_after "$P" "run x" "-> result : success"

# Properties (tabs show as blanks on the screen): by key through the library, calibration of the camera, collections.
expect_after "$P" "set amplitude_threshold 50" "-> result : success"
expect_after "$P" "get amplitude_threshold" "-> result : amplitude_threshold, 50"
expect_after "$P" "set amplitude_threshold high" "-> result : invalid parameter"
expect_after "$P" "set model X" "-> result : invalid operation"
expect_after "$P" "get no_such_key" "-> result : not supported"
expect_after "$P" "get lenses" "        lenses = 1"
expect_after "$P" "get distortion_coefficients" "-> result : distortion_coefficients"
wait_for "skewCoefficient = 0.000000"
expect_after "$P" "get fov" "        FoV : 70.000000(H) x 55.318736(V)"
expect_after "$P" "get extrinsic_parameters" "        RotationParameters(r1[0]) = 1.000000"
wait_for "translation(tz) = 0.000000"
expect_after "$P" "getpl fw_info" "-> properties(fw_info) :"
wait_for "+property : fw_version, 786"
expect_after "$P" "setpl settings amplitude_threshold 70 framerate 15" "-> result : success"
expect_after "$P" "get framerate" "-> result : framerate, 15.000000"
expect_after "$P" "setpl settings amplitude_threshold" "-> result : invalid parameter"
expect_after "$P" "setpl" "-> result : invalid parameter"
expect_after "$P" "getpl" "-> result : not supported"

expect_after "$P" "deselect" "-> result : success"
P="LumoraShell>"
expect_after "$P" "setpl settings framerate 10" "-> result : invalid parameter"
expect_after "$P" "deselect" "-> result : not supported"

# "help", byte for byte as the terminal receives it (its output flags turn "\n" into "\r\n").
help=$'\rUsage: [COMMAND]... [OPTION]...\n'
help+=$'\r\t search\t\tsearching for ToF camera device\n'
help+=$'\r\t select\t\tselect camera device in the searched list\n'
help+=$'\r\t run\t\trun the selected camera device & You can see the image frames\n'
help+=$'\r\t stop\t\tstop the camera device\n'
help+=$'\r\t get\t\tget property from selected camera device\n'
help+=$'\r\t set\t\tset property to selected camera device\n'
help+=$'\r\t deselect\trelease the camera device\n'
help+=$'\r\t history\tdisplay manipulate the history list\n'
help+=$'\r\t version\tdisplay last released version\n'
help+=$'\r\t quit\t\trelease the camera device & exit\n'
help+=$'\r\t help\t\tdisplay this help\n'
help+=$'\r\nExamples:\n'
help+=$'\r\tselect 0\t\t\tselect ToF camera device index 0\n'
help+=$'\r\tset amplitude_threshold 100\tsetting amplitude_threshold property with 100 to the selected camera device\n'
type_line "help"
wait_for_bytes $'H\r\n\r'"${help//$'\n'/$'\r\n'}"$'\rLumoraShell> '

# "history" lists every line entered, numbered from 1.
type_line "history"
wait_for_line "1 run"
wait_for_line "51 history"

# The stress test: refused while stopped, and while one runs. A cycle is half a second
# stopped, then three seconds running; the test's stop and run are traced by the display
# sink after the prompt: an empty line gives a fresh one.
select_camera 0
P="QRX100A:"
expect_after "$P" "_run_stop_test" "-> result : not supported"
expect_after "$P" "run" "-> result : success"
expect_after "$P" "_run_stop_test" "-> result : success"
sleep 1.2
type_line ""
expect_after "$P" "_run_stop_test" "-> result : already running"
# "quit" ends the stress test, stops and closes the camera, and the process ends.
cycle_counts() { screen | grep -cE '^run_stop test count = [12]$' || true; }
more_cycle_counts() { [ "$(cycle_counts)" -gt "$1" ]; }
counts=$(cycle_counts)
type_line "quit"
retry "no cycle count after \"quit\"" more_cycle_counts "$counts"
status=$(wait_exit 10)
[ "$status" = 0 ] || fail "exit status $status"
check_terminal_restored
echo "commands: passed"
