#!/usr/bin/env bash
# The shell starts at its prompt, answers an unknown command with "not supported", and
# "quit" ends it cleanly: with the default devices, an empty device list, and no
# transport at all.
source "$(dirname "$0")/lib.sh"

check() {
  wait_for "LumoraShell>"
  type_line "frobnicate"
  wait_for "-> result : not supported"
  type_line "quit"
  status=$(wait_exit 10)
  [ "$status" = 0 ] || fail "exit status $status ($1)"
}

start_shell
check "default devices"
start_shell ""
check "no devices"
start_shell "none"
check "no transport"
echo "start_and_quit: passed"
