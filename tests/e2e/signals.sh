#!/usr/bin/env bash
# Ctrl-C and Ctrl-Z at the prompt end the shell with the signal number as exit status and
# leave the terminal settings exactly as they were, also while a camera streams into open
# windows, whose threads still run while the exit tears Qt down.
source "$(dirname "$0")/lib.sh"

interrupt() {
  local key=$1 expected=$2 what=$3
  tmux_ send-keys "$key"
  status=$(wait_exit 10)
  [ "$status" = "$expected" ] || fail "$what: exit status $status, expected $expected"
  check_terminal_restored
}

start_shell
wait_for "LumoraShell>"
interrupt C-c 2 "Ctrl-C at the prompt"

start_shell
wait_for "LumoraShell>"
tmux_ send-keys -l "s"
interrupt C-z 20 "Ctrl-Z with a half-typed line"

start_streaming
wait_window "^QRX100A Depth"
interrupt C-c 2 "Ctrl-C while streaming into windows"
wait_no_window "^QRX100A "
received "QObject::" && fail "Qt warned at the exit: $(raw_output | grep -a -m1 "QObject::")"
echo "signals: passed"
