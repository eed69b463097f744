# Helpers for end-to-end tests: the shell runs in a real terminal (a tmux pane, on a
# server of the test's own), keys are typed with send-keys and the screen is read with
# capture-pane. Every wait is bounded.
set -euo pipefail

SHELL_BIN=$(realpath "${1:?usage: $0 path/to/lumora-shell}")
SOCKET=""
WORKDIR=$(mktemp -d)
SHELLS=0
echo "set-option -g remain-on-exit on" >"$WORKDIR/tmux.conf"
unset LUMORA_SIM_DEVICES

tmux_() { tmux -L "$SOCKET" "$@"; }

# Ends the terminal server of the last start_shell, and with it the shell if still running.
stop_shell() {
  [ -n "$SOCKET" ] && tmux_ kill-server 2>/dev/null || true
  SOCKET=""
}

cleanup() {
  stop_shell
  rm -rf "$WORKDIR"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  echo "--- screen:" >&2
  screen >&2 || true
  exit 1
}

# Starts the shell in an 80x24 pane; with an argument, the simulated library's device list
# LUMORA_SIM_DEVICES is set to it (else the library's default devices). A wrapper writes
# the shell's exit status to a file when it ends, and the pane stays, so the last screen
# can still be read.
start_shell() {
  stop_shell
  SOCKET="lumora-e2e-$$-$((++SHELLS))"
  rm -f "$WORKDIR/status"
  local devices=()
  [ $# -gt 0 ] && devices=(-e "LUMORA_SIM_DEVICES=$1")
  tmux_ -f "$WORKDIR/tmux.conf" new-session -d -x 80 -y 24 -c "$WORKDIR" "${devices[@]}" \
    sh -c '"$0"; echo $? >status.tmp; mv status.tmp status' "$SHELL_BIN"
}

screen() { tmux_ capture-pane -p -J; }

type_line() { tmux_ send-keys -l "$1"; tmux_ send-keys Enter; }

# Waits up to $2 seconds (default 10) for the screen to show the fixed text $1.
wait_for() {
  local text=$1 seconds=${2:-10}
  local deadline=$((SECONDS + seconds))
  while ((SECONDS < deadline)); do
    screen | grep -qF -- "$text" && return 0
    sleep 0.1
  done
  fail "no \"$text\" on the screen within ${seconds}s"
}

# Waits up to $1 seconds for the program to end; prints its exit status.
wait_exit() {
  local seconds=${1:-10}
  local deadline=$((SECONDS + seconds))
  while ((SECONDS < deadline)); do
    if [ -f "$WORKDIR/status" ]; then
      cat "$WORKDIR/status"
      return 0
    fi
    sleep 0.1
  done
  echo "timeout"
}
