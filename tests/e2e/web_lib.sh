# Helpers for the web view's end-to-end tests: the shell as a scripted session (lib.sh), the
# web view on a port of the test's own, and the browser checks. Every wait is bounded.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

E2E_DIR=$(dirname "$(realpath "${BASH_SOURCE[0]}")")
PORT=$((20000 + RANDOM % 20000))
URL=""

# Turns the web view on at $PORT and keeps its address in URL.
start_web() {
  say "set web_port $PORT" "set web_view on"
  retry "no address of the web view" out_has "web view: http://127.0.0.1:$PORT/?token="
  URL=$(grep -ao "http://127.0.0.1:$PORT/?token=[0-9a-f]*" "$OUT" | tail -1)
}

port_free() { ! ss -Htln "sport = :$PORT" | grep -q .; }

checks() { /usr/bin/python3 "$E2E_DIR/web_checks.py" "$@" || fail "web check $1"; }
