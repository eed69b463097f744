#!/usr/bin/env bash
# Fatal signals end the shell with the signal number as exit status and leave the terminal
# settings exactly as they were: Ctrl-C while a camera streams every frame type into open
# windows, so that a list's showing is under way on the GUI thread while the render thread
# converts the next, and both still run while the exit tears Qt down; and SIGSEGV and SIGABRT raised on the
# library's delivery thread while it streams into windows and a dump file is being
# written, so that the exit runs on that thread. (Ctrl-C and Ctrl-Z at the prompt, in the
# line editor alone, are tests/terminal's.)
source "$(dirname "$0")/lib.sh"

# Waits (at most 10 s) for the shell to end; fails unless its status is $1 and the terminal
# settings are restored. Prints how long the shell took to end since $2 ($EPOCHREALTIME):
# the wrapper writes the status file as soon as it has ended.
expect_exit() {
  local expected=$1 since=$2 what=$3 status ended
  status=$(wait_exit 10)
  [ "$status" = "$expected" ] || fail "$what: exit status $status, expected $expected"
  check_terminal_restored
  received "QObject::" && fail "$what: Qt warned at the exit: $(raw_output | grep -a -m1 "QObject::")"
  ended=$(stat -c %.6Y "$WORKDIR/status")
  local microseconds=$((10#${ended//[.,]/} - 10#${since//[.,]/}))
  printf 'signals: %s: ended after %d.%02d s\n' "$what" $((microseconds / 1000000)) $((microseconds % 1000000 / 10000))
}

interrupt() {
  local key=$1 expected=$2 what=$3 since=$EPOCHREALTIME
  tmux_ send-keys "$key"
  expect_exit "$expected" "$since" "$what"
}

# The shell's process: the one child of the pane's wrapper.
shell_pid() {
  local wrapper child
  wrapper=$(tmux_ display-message -p '#{pane_pid}')
  read -r child _ <"/proc/$wrapper/task/$wrapper/children"
  echo "$child"
}

# The id of the thread of process $1 whose name is $2; fails when there is none.
thread_named() {
  local task
  for task in /proc/"$1"/task/*; do
    [ "$(cat "$task/comm" 2>/dev/null)" = "$2" ] && echo "${task##*/}" && return 0
  done
  return 1
}

# True once the dump file holds more than a record.
dump_writing() { [ -n "$(dump_file)" ] && (($(records_of 1 "$(dump_file)") > 1)); }

# Sends the signal $1 (number $2) to the library's delivery thread alone, while a small
# camera streams into open windows and a long dump is being written.
fault_on_delivery_thread() {
  local name=$1 number=$2 pid tid since
  rm -f "$WORKDIR"/QRX100A_*_framedump_*.lmr
  open_camera "QRX100A:160x120"
  expect_after "$P" "run" "-> result : success"
  wait_window "^QRX100A Depth"
  type_line "set frame_dump 1 300"
  retry "no dump file being written" dump_writing
  pid=$(shell_pid)
  tid=$(thread_named "$pid" lumora-delivery) || fail "no thread lumora-delivery in process $pid"
  since=$EPOCHREALTIME
  perl -e 'require "syscall.ph"; syscall(SYS_tgkill(), map { $_ + 0 } @ARGV) == 0 or die "tgkill: $!\n"' \
    "$pid" "$tid" "$number"
  expect_exit "$number" "$since" "$name on the delivery thread"
}

open_camera QRX100A
expect_after "$P" "run 30" "-> result : success"
wait_window "^QRX100A IPCL-Amplitude"
interrupt C-c 2 "Ctrl-C while streaming into six windows"
wait_no_window "^QRX100A "

fault_on_delivery_thread SIGSEGV 11
fault_on_delivery_thread SIGABRT 6
echo "signals: passed"
