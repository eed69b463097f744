# Helpers for end-to-end tests: the shell runs in a real terminal (a tmux pane, on a
# server of the test's own), keys are typed with send-keys and the screen is read with
# capture-pane; or as a scripted session fed through a pipe (start_piped). Every wait is
# bounded. The shell gets a display of its own (an Xvfb server started with the first
# shell) unless NO_DISPLAY=1.
set -euo pipefail

SHELL_BIN=$(realpath "${1:?usage: $0 path/to/lumora-shell}")
LMR_BIN=$(dirname "$SHELL_BIN")/../lmr/lmr
SOCKET=""
WORKDIR=$(mktemp -d)
OUT="$WORKDIR/out"
SHELL_PID=""
# Dump files: the head's bytes, and a record's of a 160 x 120 camera with its 160-byte
# embedded line by mode (a 15-byte header, the line, then 1, 2, 6 or 8 bytes a pixel).
DUMP_HEAD=69
RECORD=()
for bytes in 2 4 12 16; do RECORD+=($((15 + 160 + 160 * 120 * bytes))); done
SHELLS=0
echo "set-option -g remain-on-exit on" >"$WORKDIR/tmux.conf"
unset LUMORA_SIM_DEVICES DISPLAY
XVFB_PID=""
XDISPLAY=""

tmux_() { tmux -L "$SOCKET" "$@"; }

# Ends the terminal server of the last start_shell, and with it the shell if still running.
stop_shell() {
  [ -n "$SOCKET" ] && tmux_ kill-server 2>/dev/null || true
  SOCKET=""
}

# Starts the test's own X server once; Xvfb picks a free display number and tells it, and
# keeps its screen in the file Xvfb_screen0 (XWD format) for screenshots. Without -noreset
# the server resets when its last client leaves (a shell ended by a signal), and the next
# shell's connection made during the reset fails inside Qt, which then aborts.
start_display() {
  [ -n "$XDISPLAY" ] && return 0
  Xvfb -displayfd 3 -screen 0 1280x1024x24 -fbdir "$WORKDIR" -nolisten tcp -noreset 3>"$WORKDIR/displayfd" 2>/dev/null &
  XVFB_PID=$!
  retry "Xvfb did not start" test -s "$WORKDIR/displayfd"
  XDISPLAY=":$(cat "$WORKDIR/displayfd")"
}

cleanup() {
  stop_shell
  [ -n "$XVFB_PID" ] && kill "$XVFB_PID" 2>/dev/null || true
  rm -rf "$WORKDIR"
}
trap cleanup EXIT

# Runs the command $2... every 50 ms (RETRY_PAUSE seconds when set) until it succeeds, for
# at most 10 seconds (RETRY_SECONDS when set); then fails with the message $1.
retry() {
  local message=$1 deadline=$((SECONDS + ${RETRY_SECONDS:-10}))
  shift
  until "$@"; do
    ((SECONDS < deadline)) || fail "$message"
    sleep "${RETRY_PAUSE:-0.05}"
  done
}

# Fails with the message $*, the screen of the terminal or the end of the scripted session.
fail() {
  echo "FAIL: $*" >&2
  if [ -n "$SOCKET" ]; then
    echo "--- screen:" >&2
    raw_screen >&2 || true
  elif [ -s "$OUT" ]; then
    echo "--- the session's last lines:" >&2
    tr -d '\r' <"$OUT" | tail -40 >&2
    tail -20 "$WORKDIR/err" >&2 2>/dev/null || true
  fi
  exit 1
}

# Starts the shell in an 80x24 pane; with an argument, the simulated library's device list
# LUMORA_SIM_DEVICES is set to it (else the library's default devices). The shell's display
# is the test's X server, or none with NO_DISPLAY=1. A wrapper keeps the
# terminal settings from before and after the shell (stty -g) and writes its exit status to
# a file when it ends; the pane stays, so the last screen can still be read. Every byte the
# shell writes is kept too. Job control puts the shell in a process group of its own, as an
# interactive login shell would, so that Ctrl-C and Ctrl-Z reach the shell alone.
start_shell() {
  stop_shell
  SOCKET="lumora-e2e-$$-$((++SHELLS))"
  rm -f "$WORKDIR/status" "$WORKDIR/raw" "$WORKDIR/stty.before" "$WORKDIR/stty.after"
  local environment=()
  [ $# -gt 0 ] && environment=(-e "LUMORA_SIM_DEVICES=$1")
  if [ "${NO_DISPLAY:-0}" != 1 ]; then
    start_display
    # No XDG_RUNTIME_DIR, as after su or on a board without a login manager: Qt's notice
    # about it must not reach the terminal. The windows need no OpenGL, and without Qt's GLX
    # integration Mesa's LLVM is not loaded, whose start-up trips AddressSanitizer now and then.
    environment+=(-e "DISPLAY=$XDISPLAY" -e QT_XCB_GL_INTEGRATION=none)
  fi
  tmux_ -f "$WORKDIR/tmux.conf" new-session -d -x 80 -y 24 -c "$WORKDIR" "${environment[@]}" \
    bash -c 'set -m; unset XDG_RUNTIME_DIR; stty -g >stty.before; read -r go; "$0"; echo $? >status.tmp; stty -g >stty.after; mv status.tmp status' \
    "$SHELL_BIN"
  tmux_ pipe-pane -o "cat >>'$WORKDIR/raw'"
  # The wrapper waits for this line, so that no byte of the shell's escapes the recording.
  tmux_ send-keys Enter
}

# Every byte written to the terminal so far.
raw_output() { cat "$WORKDIR/raw" 2>/dev/null || true; }

received() { [[ "$(raw_output)" == *"$1"* ]]; }

# Waits for the terminal to have received the bytes $1.
wait_for_bytes() { retry "the terminal did not receive $(printf '%q' "$1")" received "$1"; }

# Fails unless the terminal settings after the shell are those from before it.
check_terminal_restored() {
  [ -s "$WORKDIR/stty.before" ] || fail "no settings recorded before the shell"
  cmp -s "$WORKDIR/stty.before" "$WORKDIR/stty.after" ||
    fail "terminal settings changed: $(cat "$WORKDIR/stty.before") -> $(cat "$WORKDIR/stty.after" 2>/dev/null)"
}

# True when the screen shows $2 with grep's options $1 (-F: anywhere, -xF: a whole line).
shows() { screen | grep -q "$1" -- "$2"; }

# Waits for a screen line to be exactly $1.
wait_for_line() { retry "no line \"$1\" on the screen" shows -xF "$1"; }

# The whole screen and its scrollback as the terminal shows it.
raw_screen() { tmux_ capture-pane -p -J -S -; }

# The screen and its scrollback, trailing blanks cut, without the sinks' trace lines
# ("FrameDumpSink:onLumoraCameraState:NN source(sim:0) state = 3", and the renderer's
# "onLumoraCameraState:NN source(sim:0) state = 3"). They come from library threads at any
# moment, also right after a prompt or within a line being typed; each is cut with its end
# of line, so the line it broke reads whole again.
screen() {
  raw_screen | perl -0pe 's/(?:FrameDumpSink:)?on[A-Za-z]+:[0-9]+ source\([^)\n]*\)(?: (?:state|error) = -?[0-9]+)?\n//g' |
    sed 's/ *$//'
}

cursor_position() { tmux_ display-message -p '#{cursor_x},#{cursor_y}'; }
# True once the cursor is no longer at $1; its position is then in MOVED_TO.
cursor_left() {
  MOVED_TO=$(cursor_position)
  [ "$MOVED_TO" != "$1" ]
}

# Waits (at most 2 s) until the terminal has received nothing for 50 ms, so that trace
# lines a command set off have come before the next line is typed.
wait_quiet() {
  local size last=-1 deadline=$((SECONDS + 2))
  while ((SECONDS < deadline)); do
    size=$(stat -c %s "$WORKDIR/raw" 2>/dev/null || echo 0)
    [ "$size" = "$last" ] && return 0
    last=$size
    sleep 0.05
  done
}

# Types $1 as a person does, one key at a time: the editor asks the terminal where the
# cursor is for every character, and a key typed before that answer would spoil it. The
# next key goes once the cursor has moved from where it was (a trace line may have moved
# it to a new line). Then Enter. A trace line printed after the prompt leaves the cursor at
# the start of a line, where the editor would take the text for the middle of its line:
# an empty line first brings a fresh prompt, as a person would press Enter.
type_line() {
  local text=$1 i position
  wait_quiet
  position=$(cursor_position)
  if [ "${position%,*}" = 0 ]; then
    tmux_ send-keys Enter
    retry "no fresh prompt" cursor_left "$position"
    position=$MOVED_TO
  fi
  for ((i = 0; i < ${#text}; i++)); do
    tmux_ send-keys -l -- "${text:i:1}"
    # The editor answers within milliseconds: a short pause keeps typing near a person's pace.
    RETRY_PAUSE=0.01 retry "the editor did not take \"${text:0:i+1}\"" cursor_left "$position"
    position=$MOVED_TO
  done
  tmux_ send-keys Enter
}

# Waits for the screen to show the fixed text $1.
wait_for() { retry "no \"$1\" on the screen" shows -F "$1"; }

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

# The screen line that follows the last line that is exactly $1.
line_after() { screen | awk -v line="$1" '$0 == line { getline next_line; found = next_line } END { print found }'; }

follows() { [ "$(line_after "$1")" = "$2" ]; }

# Waits for the line after the last line $1 to be $2.
wait_for_after() { retry "no \"$2\" after \"$1\"" follows "$1" "$2"; }

# Whether the last bytes received show a sink trace after the last prompt $1.
trace_after_prompt() {
  local tail
  tail=$(raw_output | tail -c 4000)
  [[ "$tail" == *"$1 "* && "${tail##*"$1 "}" == *" source("* ]]
}

# "run", "stop" and "deselect" change the camera's state, which the display sink traces
# from a library thread, often after the next prompt. Waits (up to 2 s) for that trace
# when the command made one, and when it landed after the prompt $1 types an empty line
# for a fresh one: the editor places keys by the cursor, which the trace has moved.
settle_traces() {
  local prompt=$1 command=$2 before=$3 deadline=$((SECONDS + 2))
  case "${command%% *}" in run | stop | deselect) ;; *) return 0 ;; esac
  until received_more " source(" "$before"; do
    ((SECONDS < deadline)) || return 0
    sleep 0.05
  done
  sleep 0.1
  if trace_after_prompt "$prompt"; then type_line ""; fi
}

# At the prompt $1, types the command $2 and waits for the next line to be $3.
expect_after() {
  local traces
  traces=$(received_count " source(")
  type_line "$2"
  wait_for_after "$1 $2" "$3"
  settle_traces "$1" "$2" "$traces"
}

# How many times the terminal has received the bytes $1.
received_count() { raw_output | { grep -oF -- "$1" || true; } | wc -l; }
received_more() { [ "$(received_count "$1")" -gt "$2" ]; }

# Types "select $1" and waits for the display sink's trace of the prepared camera, which
# the library sends from its own thread after the prompt; then an empty line for a fresh
# prompt, since the editor places keys by the cursor, which the trace has moved.
select_camera() {
  local before
  before=$(received_count "state = 1")
  type_line "select $1"
  retry "no prepared camera after \"select $1\"" received_more "state = 1" "$before"
  type_line ""
}

# Opens the only or first camera of the devices $1 in a new shell; the prompt is then P.
open_camera() {
  start_shell "$1"
  wait_for "LumoraShell>"
  type_line "search"
  select_camera 0
  P="${1%%[:,@]*}:"
  wait_for_line "$P"
}

# Starts the shell with one QRX100A, selects it and runs it.
start_streaming() {
  open_camera QRX100A
  expect_after "$P" "run" "-> result : success"
}

# Runs xdotool on the test's X server.
xdo() { DISPLAY=$XDISPLAY xdotool "$@"; }

# True when a window whose name matches the regular expression $1 is shown.
has_window() { xdo search --onlyvisible --name "$1" >/dev/null 2>&1; }
no_window() { ! has_window "$1"; }
wait_window() { retry "no window named like \"$1\"" has_window "$1"; }
wait_no_window() { retry "a window named like \"$1\" is still there" no_window "$1"; }

# The newest dump file of the simulated QRX100A, if any.
dump_file() { compgen -G "$WORKDIR/QRX100A_*_framedump_*.lmr" | tail -1; }
# Whole records of mode $1 in the dump file $2; whole_records: at least one, none cut short.
records_of() { echo $((($(stat -c %s "$2") - DUMP_HEAD) / RECORD[$1])); }
whole_records() { (($(stat -c %s "$2") > DUMP_HEAD && ($(stat -c %s "$2") - DUMP_HEAD) % RECORD[$1] == 0)); }

# --- The shell as a scripted session: lines go in with say, its output collects in $OUT
# (a sanitizer's reports, on the error stream, in $WORKDIR/err).

# Starts the shell on the devices $1, with the test's X server when $2 is 1, else with no
# display at all. Any further words run first, in the shell's process: "ulimit -f 100" is
# a full disk, where SIGXFSZ is ignored so that the write fails instead.
start_piped() {
  local environment=(env -u DISPLAY "LUMORA_SIM_DEVICES=$1")
  if [ "$2" = 1 ]; then
    start_display
    mkdir -p -m 700 "$WORKDIR/runtime"
    environment+=("DISPLAY=$XDISPLAY" "XDG_RUNTIME_DIR=$WORKDIR/runtime" QT_XCB_GL_INTEGRATION=none)
  fi
  shift 2
  rm -f "$WORKDIR/in" "$OUT" "$WORKDIR/err"
  mkfifo "$WORKDIR/in"
  (cd "$WORKDIR" && "${@:-:}" && trap "" XFSZ && exec "${environment[@]}" "$SHELL_BIN" <"$WORKDIR/in" >"$OUT" 2>"$WORKDIR/err") &
  SHELL_PID=$!
  exec 8>"$WORKDIR/in"
}

say() { printf '%s\n' "$@" >&8; }

# Ends the script; the shell must end within 20 s with status 0.
end_piped() {
  exec 8>&-
  local deadline=$((SECONDS + 20))
  while kill -0 "$SHELL_PID" 2>/dev/null; do
    ((SECONDS < deadline)) || fail "the shell did not end with its script"
    sleep 0.1
  done
  wait "$SHELL_PID" || fail "the shell ended with status $?"
}

# Lines of the output holding the text $1.
out_count() { grep -acF -- "$1" "$OUT" 2>/dev/null || true; }
out_has() { grep -qaF -- "$1" "$OUT" 2>/dev/null; }
out_at_least() { (($(out_count "$1") >= $2)); }
# Waits for $2 lines of the output to hold $1.
wait_out() { retry "fewer than $2 lines \"$1\"" out_at_least "$1" "$2"; }
# Sends the line $1 and waits for one more line holding $2.
expect_out() {
  local before
  before=$(out_count "$2")
  say "$1"
  wait_out "$2" $((before + 1))
}
# Sends the line $1 (a select, a run) and waits for both sinks' traces of the camera's state
# $2 (1 prepared, 3 running), which the library sends from its own thread after the answer.
expect_state() {
  local before
  before=$(out_count ") state = $2")
  say "$1"
  wait_out ") state = $2" $((before + 2))
}

# Sends the lines $@ that start a dump (and inject a fault), keeping the counts of the
# writer's and the capture's end lines before it in asked and finished.
begin_dump() {
  asked=$(out_count "frames asked for")
  finished=$(out_count "Frame dump finished!")
  say "$@"
}
# lmr info of $1 exits with $2 and says $3.
lmr_says() {
  local text status=0
  text=$("$LMR_BIN" info "$WORKDIR/$1") || status=$?
  [ "$status" = "$2" ] || fail "lmr info $1: status $status: $text"
  grep -qF -- "$3" <<<"$text" || fail "lmr info $1 does not say \"$3\": $text"
}

has_dump() { [ -n "$(dump_file)" ]; }
has_records() { has_dump && [ "$(records_of "$1" "$(dump_file)")" = "$2" ]; }
# Waits for a whole dump of $3 records in mode $2 and its "Frame dump finished!"; moves the
# file to $1.
dump_whole() {
  retry "no dump of $3 records in mode $2" has_records "$2" "$3"
  wait_out "Frame dump finished!" $((finished + 1))
  mv "$(dump_file)" "$WORKDIR/$1"
}
