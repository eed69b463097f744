#!/usr/bin/env bash
# A user's session: search, select, run, stop, deselect and quit, with the exact lines.
source "$(dirname "$0")/lib.sh"

start_shell "QRX100A,QRX200AP"
wait_for "LumoraShell>"
type_line "search"
wait_for_line "0) source name : QRX100A, serialNumber : LM0536240000, uri : sim:0"
wait_for_line "1) source name : QRX200AP, serialNumber : LM2F3C650001, uri : sim:1"
select_camera 1
wait_for_line "selected device(QRX200AP:LM2F3C650001)"
wait_for_line "QRX200AP:"
type_line "run"
wait_for_line "QRX200AP: run"
wait_for_line "-> result : success"
type_line "stop"
wait_for_line "QRX200AP: stop"
wait_for_count "-> result : success" 2
type_line "deselect"
wait_for_line "QRX200AP: deselect"
wait_for_count "-> result : success" 3
type_line "version"
wait_for_line "LumoraShell> version"
wait_for_line "v2.3.0 : 2026-11-21"
type_line "quit"
status=$(wait_exit 10)
[ "$status" = 0 ] || fail "exit status $status"
check_terminal_restored
[ "$(count_lines "-> result : not supported")" = 0 ] || fail "no command was refused"
echo "session: passed"
