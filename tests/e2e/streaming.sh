#!/usr/bin/env bash
# A streaming camera: hot-plug lines from the library's thread, the run/stop stress test,
# and "quit" while frames flow.
source "$(dirname "$0")/lib.sh"

start_shell "QRX100A"
P="LumoraShell>"
wait_for "$P"
# The library announces a device from its own thread, before or after the shell's own
# lines; an empty line then brings a fresh prompt.
type_line "set sim_attach QRX200AP"
wait_for "onAttachedLumoraSource(sim:1)"
wait_for_line "-> result : success"
type_line ""
type_line "search"
wait_for_line "1) source name : QRX200AP, serialNumber : LM2F3C650001, uri : sim:1"
type_line "set sim_detach 1"
wait_for "onDetachedLumoraSource(sim:1)"
wait_for_count "-> result : success" 2
type_line ""
select_camera 0
P="QRX100A:"
wait_for_line "$P"
expect_after "$P" "_run_stop_test" "-> result : not supported"
expect_after "$P" "run" "-> result : success"
expect_after "$P" "_run_stop_test" "-> result : success"
# A cycle is half a second stopped, then three seconds running; while it runs, a second
# test is refused. The test's stop and run are traced by the display sink after the
# prompt: an empty line gives a fresh one.
sleep 1.2
type_line ""
expect_after "$P" "_run_stop_test" "-> result : already running"
# "stop" waits for the cycle under way to end.
# On a loaded machine the typing above may outlast the first cycle: one or two.
counts() { screen | grep -cxE "run_stop test count = [0-9]+" || true; }
more_counts() { [ "$(counts)" -gt "$1" ]; }
traces=$(received_count " source(")
type_line "stop"
retry "\"stop\" printed no cycle count" more_counts 0
count_line=$(screen | grep -xE "run_stop test count = [12]" | tail -1)
[ -n "$count_line" ] || fail "\"stop\" counted neither one nor two cycles"
wait_for_after "$count_line" "-> result : success"
settle_traces "$P" "stop" "$traces"
expect_after "$P" "run" "-> result : success"
expect_after "$P" "_run_stop_test" "-> result : success"
sleep 1.2
type_line ""

# "quit" ends the stress test, stops and closes the camera, and the process ends.
type_line "quit"
retry "\"quit\" printed no cycle count" more_counts 1
status=$(wait_exit 10)
[ "$status" = 0 ] || fail "exit status $status"
check_terminal_restored

# Quit while streaming, without a stress test: the entry point notices within its
# one-second poll.
start_streaming
type_line "quit"
status=$(wait_exit 5)
[ "$status" = 0 ] || fail "exit status $status after quitting while streaming"
check_terminal_restored
echo "streaming: passed"
