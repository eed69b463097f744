#!/usr/bin/env bash
# A streaming camera: the run/stop stress test refused and ended by "quit", and "quit" while
# frames flow. (Unplugs are faults.sh's; hot-plug while streaming, and the stress test's
# cycles ended by "stop", are the soak's.)
source "$(dirname "$0")/lib.sh"

cycle_counts() { screen | grep -cE '^run_stop test count = [12]$' || true; }
more_cycle_counts() { [ "$(cycle_counts)" -gt "$1" ]; }

# A small frame keeps the camera's rendering light, so that typing keeps pace with the
# stress test's cycle also under ThreadSanitizer.
start_shell "QRX100A:160x120"
P="LumoraShell>"
wait_for "$P"
type_line "search"
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
# "quit" ends the stress test, stops and closes the camera, and the process ends.
counts=$(cycle_counts)
type_line "quit"
retry "no cycle count after \"quit\"" more_cycle_counts "$counts"
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
