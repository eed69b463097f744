# Helpers for the web view's end-to-end tests: the shell as a scripted session fed through
# a pipe (lines go in with say, its output collects in $WORKDIR/out), the web view on a
# port of the test's own, and the browser checks. Every wait is bounded.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

E2E_DIR=$(dirname "$(realpath "${BASH_SOURCE[0]}")")
LMR_BIN=$(dirname "$SHELL_BIN")/../lmr/lmr
PORT=$((20000 + RANDOM % 20000))
SHELL_PID=""
URL=""

out_has() { grep -qF -- "$1" "$WORKDIR/out"; }
out_count() { grep -cF -- "$1" "$WORKDIR/out" || true; }
results_at_least() { [ "$(out_count "-> result : success")" -ge "$1" ]; }
# Waits for $1 successful results in all.
wait_results() { retry "fewer than $1 successful results" results_at_least "$1"; }
say() { echo "$1" >&8; }

# Starts the shell on the devices $1, with the test's X server when $2 is 1, else with no
# display at all.
start_piped() {
  local environment=(env -u DISPLAY "LUMORA_SIM_DEVICES=$1")
  if [ "$2" = 1 ]; then
    start_display
    mkdir -p -m 700 "$WORKDIR/runtime"
    environment+=("DISPLAY=$XDISPLAY" "XDG_RUNTIME_DIR=$WORKDIR/runtime" QT_XCB_GL_INTEGRATION=none)
  fi
  rm -f "$WORKDIR/in" "$WORKDIR/out"
  mkfifo "$WORKDIR/in"
  (cd "$WORKDIR" && exec "${environment[@]}" "$SHELL_BIN" <"$WORKDIR/in" >"$WORKDIR/out" 2>&1) &
  SHELL_PID=$!
  exec 8>"$WORKDIR/in"
}

# Ends the script; the shell must exit with status 0.
end_piped() {
  exec 8>&-
  local deadline=$((SECONDS + 20))
  while kill -0 "$SHELL_PID" 2>/dev/null; do
    ((SECONDS < deadline)) || fail "the shell did not end with its script"
    sleep 0.1
  done
  wait "$SHELL_PID" || fail "the shell ended with status $?"
}

# Turns the web view on at $PORT and keeps its address in URL.
start_web() {
  say "set web_port $PORT"
  say "set web_view on"
  retry "no address of the web view" out_has "web view: http://127.0.0.1:$PORT/?token="
  URL=$(grep -o "http://127.0.0.1:$PORT/?token=[0-9a-f]*" "$WORKDIR/out" | tail -1)
}

port_free() { ! ss -Htln "sport = :$PORT" | grep -q .; }

checks() { /usr/bin/python3 "$E2E_DIR/web_checks.py" "$@" || fail "web check $1"; }

# Fails with the shell's output rather than a terminal screen.
raw_screen() { tail -c 3000 "$WORKDIR/out" 2>/dev/null; }
