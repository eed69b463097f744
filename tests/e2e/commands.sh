#!/usr/bin/env bash
# The interpreter's answers, from a pipe, line for line: commands that need a camera, unknown
# words, the forms of "select", "search" while selected, the run argument kept between runs,
# properties, the shell's settings (each with a good value, a wrong word and a number where
# a word is expected), the display ranges a select sets for each model family and a
# deselect keeps, "history", and "help" to the byte. Then in a real terminal: the shell
# starting and quitting with the default devices, none and no transport at all, and the
# run/stop stress test refused, running and ended by "quit" while frames flow.
source "$(dirname "$0")/lib.sh"

ok="-> result : success" bad="-> result : invalid parameter" no="-> result : not supported"
op="-> result : invalid operation" fail="-> result : fail"
# Lines "command|output" ("\n" between output lines) become the session's input and the
# transcript expected of it: each command after its prompt, which a select and a deselect
# change; "history" answers with the commands so far.
script() {
  local prompt="LumoraShell>" line command result entered=()
  : >"$WORKDIR/input"
  : >"$WORKDIR/expected"
  for line in "$@"; do
    command=${line%%|*} result=${line#*|}
    [ -n "$command" ] && entered+=("$command")
    [ "$command" = history ] && result=$(for i in "${!entered[@]}"; do echo "$((i + 1)) ${entered[i]}"; done)
    echo "$command" >>"$WORKDIR/input"
    echo "$prompt $command" >>"$WORKDIR/expected"
    [ -n "$result" ] && printf '%b\n' "$result" >>"$WORKDIR/expected"
    case "$command|$result" in
      "select "*"|selected device("*) prompt="${result#selected device(}" prompt="${prompt%%:*}:" ;;
      "deselect|$ok") prompt="LumoraShell>" ;;
    esac
  done
}

rotation=""
for r in 1 2 3; do
  for c in 0 1 2; do rotation+="\n\tRotationParameters(r$r[$c]) = $((r - 1 == c)).000000"; done
done
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
search="0) source name : QRX100A, serialNumber : LM0536240000, uri : sim:0
1) source name : QRX200AP, serialNumber : LM2F3C650001, uri : sim:1
2) source name : ZZ9, serialNumber : LMEC47E40002, uri : sim:2"

# Without a camera, then "select" in all its forms; an empty line runs nothing.
script "run|$no" "run 2|$no" "stop|$no" "deselect|$no" "_run_stop_test|$no" "getpl fw_info|$no" "get lenses|$no" \
  "get fov|$no" "frobnicate|$no" "Help|$no" "quitnow|$no" " search|$no" "|" "version|v2.3.0 : 2026-11-21" \
  "select|$bad" "select one|$bad" "select 1.5|$bad" "select 0|-> result : no such device" "search|$search" \
  "select 5|$fail" "select -1|$fail" "select 99999999999|$fail" "select 0|selected device(QRX100A:LM0536240000)" \
  "select 0|-> result : already exists" "search|$op" \
  `# The run argument: an integer is kept for later runs, anything else reuses the last one.` \
  "run 1|$bad" "run|$bad" "run abc|$bad" "run 2|$ok" "run|-> result : already running" "stop|$ok" "stop|$op" \
  "run x|$ok" \
  `# Properties: by key through the library, calibration of the camera, collections.` \
  "set amplitude_threshold 50|$ok" "get amplitude_threshold|-> result : amplitude_threshold, 50" \
  "set amplitude_threshold high|$bad" "set model X|$op" "get no_such_key|$no" "get lenses|\tlenses = 1" \
  "get distortion_coefficients|-> result : distortion_coefficients\n\tRadialCoefficient(K1) = -0.120000
\tRadialCoefficient(K2) = 0.030000\n\tRadialCoefficient(K3) = -0.004000\n\tTangentialCoefficient(P1) = 0.000500
\tTangentialCoefficient(P2) = -0.000300\n\tskewCoefficient = 0.000000" \
  "get fov|\tFoV : 70.000000(H) x 55.318736(V)" \
  "get extrinsic_parameters|${rotation#\\n}\n\ttranslation(tx) = 0.000000\n\ttranslation(ty) = 0.000000
\ttranslation(tz) = 0.000000" \
  "getpl fw_info|-> properties(fw_info) : \n\t+property : fw_version, 786\n\t+property : fw_build_date, 2026-09-14
\t+property : hw_revision, B2\n\t+property : sensor, LMS640x480" \
  "setpl settings amplitude_threshold 70 framerate 15|$ok" "get framerate|-> result : framerate, 15.000000" \
  "setpl settings amplitude_threshold|$bad" "setpl|$bad" "getpl|$no" "deselect|$ok" \
  "setpl settings framerate 10|$bad" "deselect|$no" "history|" "help|$(tr -d '\r' <<<"$help")" \
  `# The settings.` \
  "set display off|$ok" "get display|-> result : display off" "set display maybe|$bad" "set display 1|$no" \
  "set display_resolution 1|$ok" "get display_resolution|-> result : display_resolution 1" \
  "set display_resolution big|$bad" "set display_resolution 3|$no" \
  "set scale_rgb_max 5000|$ok" "get scale_rgb_max|-> result : scale_rgb_max 5000.000000" "set scale_rgb_max far|$bad" \
  "set scale_rgb_min 100.5|$ok" "get scale_rgb_min|-> result : scale_rgb_min 100.500000" "set scale_rgb_min x|$bad" \
  "set scale_gray_max 300|$ok" "get scale_gray_max|-> result : scale_gray_max 300.000000" "set scale_gray_max x|$bad" \
  "set scale_gray_min 7|$ok" "get scale_gray_min|-> result : scale_gray_min 7.000000" "set scale_gray_min x|$bad" \
  "set fps_error_check on|$ok" "get fps_error_check|-> result : fps_error_check on" \
  "set fps_error_check yes|$bad" "set fps_error_check 1|$no" \
  "set fps_error_check_min 10|$ok" "get fps_error_check_min|-> result : fps_error_check_min 10.000000" \
  "set fps_error_check_min low|$no" \
  "set fps_error_check_max 20.5|$ok" "get fps_error_check_max|-> result : fps_error_check_max 20.500000" \
  "set fps_error_check_max high|$no" \
  "set log_level 9|-> result : out of range" "set log_level 2|$ok" "get log_level|-> result : log_level, 2" \
  "set frame_dump 0 5|E/FrameDumpSink:NN: Camera not exist!\n$ok" "set frame_dump zero 5|$no" \
  "set frame_dump 0 five|$bad" "set frobnicate 1|$no" "get frobnicate|$no" \
  `# The display ranges of each model family.` \
  "select 1|selected device(QRX200AP:LM2F3C650001)" \
  "get scale_rgb_max|-> result : scale_rgb_max 4000.000000" "get scale_rgb_min|-> result : scale_rgb_min 0.000000" \
  "get scale_gray_max|-> result : scale_gray_max 1400.000000" "get scale_gray_min|-> result : scale_gray_min 0.000000" \
  "deselect|$ok" "get scale_rgb_max|-> result : scale_rgb_max 4000.000000" \
  "select 0|selected device(QRX100A:LM0536240000)" \
  "get scale_rgb_max|-> result : scale_rgb_max 7000.000000" "get scale_gray_max|-> result : scale_gray_max 230.000000" \
  "deselect|$ok" "select 2|selected device(ZZ9:LMEC47E40002)" \
  "get scale_rgb_max|-> result : scale_rgb_max 3000.000000" "get scale_gray_max|-> result : scale_gray_max 200.000000"
start_piped "QRX100A,QRX200AP,ZZ9" 1
cat "$WORKDIR/input" >&8
end_piped
# Without the sinks' traces, which come from other threads, and the log entries' line numbers.
got=$(tr -d '\r' <"$OUT" | grep -v -e '^onLumora' -e '^FrameDumpSink:' | sed -E 's|^([EWID]/[A-Za-z]+):[0-9]+:|\1:NN:|')
[ "$got" = "$(cat "$WORKDIR/expected")" ] || fail "$(diff <(echo "$got") "$WORKDIR/expected")"
# "help" as the shell writes it, each line from the margin.
[[ $(<"$OUT") == *"$help"* ]] || fail "help: $(grep -a -A16 ' help$' "$OUT" | cat -A)"

# In a terminal, it starts and quits with the default devices, none and no transport at all.
for devices in default "" none; do
  if [ "$devices" = default ]; then start_shell; else start_shell "$devices"; fi
  wait_for "LumoraShell>"
  expect_after "LumoraShell>" "frobnicate" "$no"
  type_line "quit"
  [ "$(wait_exit 10)" = 0 ] || fail "exit status at quit with the devices \"$devices\""
done
# The stress test: refused while stopped, and while one runs. A cycle is half a second
# stopped, then three seconds running; the test's stop and run are traced by the display
# sink after the prompt: an empty line gives a fresh one. A small frame keeps the camera's
# rendering light, so that typing keeps pace with the cycle also under ThreadSanitizer.
open_camera "QRX100A:160x120"
expect_after "$P" "_run_stop_test" "$no"
expect_after "$P" "run" "$ok"
expect_after "$P" "_run_stop_test" "$ok"
# Typed as a cycle's run begins, so that no trace of the cycle moves the cursor meanwhile (the
# editor would take the keys after it for another line's).
runs=$(received_count "source(sim:0) state = 3")
RETRY_SECONDS=30 retry "no run of the stress test" received_more "source(sim:0) state = 3" "$((runs + 1))"
type_line ""
expect_after "$P" "_run_stop_test" "-> result : already running"
# "quit" ends the stress test, stops and closes the camera, and the process ends.
cycle_counts() { screen | grep -cE '^run_stop test count = [12]$' || true; }
more_cycle_counts() { [ "$(cycle_counts)" -gt "$1" ]; }
counts=$(cycle_counts)
type_line "quit"
retry "no cycle count after \"quit\"" more_cycle_counts "$counts"
[ "$(wait_exit 10)" = 0 ] || fail "exit status after the stress test"
check_terminal_restored
echo "commands: passed"
