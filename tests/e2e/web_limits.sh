#!/usr/bin/env bash
# The web view's limits with the real shell streaming a VGA camera at 30 fps: refusals,
# the ninth watcher, a stalled watcher (web_limits.py); then the port in use, a bad
# address, and no port left bound after "quit" or Ctrl-C.
source "$(dirname "$0")/web_lib.sh"

start_piped "QRX100A" 0
say "set web_bind 300.1.2.3"
retry "a bad address was taken" out_has "-> result : invalid parameter"
start_web
say search "select 0" "run 6"
wait_out "-> result : success" 3
/usr/bin/python3 "$E2E_DIR/web_limits.py" "$URL" "$SHELL_PID" || fail "web limits"

# Another program holds a port: the shell says why and carries on.
BUSY=$((PORT + 1))
/usr/bin/python3 -c "import socket, sys, time
s = socket.socket(); s.bind(('127.0.0.1', $BUSY)); s.listen(); print('listening', flush=True); time.sleep(60)" \
  >"$WORKDIR/busy" &
BUSY_PID=$!
retry "no listener on the busy port" grep -q listening "$WORKDIR/busy"
say "set web_port $BUSY" "set web_view on"
retry "no reason for the busy port" out_has "web view: cannot listen on 127.0.0.1:$BUSY: Address already in use"
retry "no failure result" out_has "-> result : fail"
kill "$BUSY_PID"
say "get web_view"
retry "the view is still on" out_has "-> result : web_view off"
say "set web_port $PORT" "set web_view on"
wait_out "web view: http://127.0.0.1:$PORT/?token=" 2
say quit
end_piped
port_free || fail "the port is still bound after quit"

# Ctrl-C ends the shell with the view on; the port goes with it.
start_piped "QRX100A" 0
start_web
say search "select 0" "run 6"
wait_out "-> result : success" 3
kill -INT "$SHELL_PID"
retry "the shell did not end on Ctrl-C" bash -c "! kill -0 $SHELL_PID 2>/dev/null"
port_free || fail "the port is still bound after Ctrl-C"
echo "web_limits: passed"

