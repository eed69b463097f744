#!/usr/bin/env bash
# Dump files played back as cameras through the real shell: a dump in each mode of a
# simulated camera, then the four files as replay devices, each dumped again; every record
# of a second dump must be the original record with its timestamp, byte for byte. On the
# way, the replay's display windows and the read-out at their centre.
source "$(dirname "$0")/lib.sh"

P="QRX100A:"
MASKS=(2 6 8 16)
# Record sizes of a 160 x 120 camera with its 160-byte embedded line, by mode.
RECORD=(38575 76975 230575 307375)

finished() { screen | grep -cF "Frame dump finished!" || true; }
finished_at_least() { [ "$(finished)" -ge "$1" ]; }
# True when the one new dump file holds whole records of $1 bytes, at least one.
dump_whole() {
  local files=("$WORKDIR"/QRX100A_*_framedump_[0-9]*.lmr) size
  [ ${#files[@]} -eq 1 ] && [ -f "${files[0]}" ] || return 1
  size=$(stat -c %s "${files[0]}")
  ((size > 69 && (size - 69) % $1 == 0))
}

# Dumps 5 lists in mode $1 and moves the file to $2, once the writer has finished it.
dump() {
  local before results
  before=$(finished)
  results=$(count_lines "-> result : success")
  type_line "set frame_dump $1 5"
  wait_for_count "-> result : success" $((results + 1))
  retry "no \"Frame dump finished!\" for mode $1" finished_at_least $((before + 1))
  retry "no whole dump in mode $1" dump_whole "${RECORD[$1]}"
  sleep 0.3 # the writer ends 100 ms after its last list
  dump_whole "${RECORD[$1]}" || fail "the dump in mode $1 did not end whole"
  mv "$WORKDIR"/QRX100A_*_framedump_*.lmr "$WORKDIR/$2"
}

# Every record of $2 is the record of $1 with its timestamp: sizes, embedded line and data
# blocks the same bytes; the files' modes, embedded line control and camera the same.
python_match() {
  python3 - "$WORKDIR/$1" "$WORKDIR/$2" <<'EOF'
import struct, sys

def die(message):
    print(message)
    sys.exit(1)

def read(path):
    data = open(path, "rb").read()
    lines, mode = data[2], struct.unpack_from("<H", data, 5)[0]
    head = (lines, mode, data[17 + 16:17 + 52])  # and the serial number and camera name
    records, offset = {}, 69
    while offset < len(data):
        _, width, height, size, stamp = struct.unpack_from("<BHHHQ", data, offset)
        end = offset + 15 + (width if lines else 0) + width * height * size * (mode + 1)
        if end > len(data):
            die(f"{path}: record at byte {offset} cut short")
        records.setdefault(stamp, set()).add(((width, height, size), data[offset + 15:end]))
        offset = end
    return head, records

original, copy = read(sys.argv[1]), read(sys.argv[2])
if original[0] != copy[0]:
    die(f"heads differ: {original[0]} and {copy[0]}")
if not copy[1]:
    die("no records in the copy")
for stamp, records in copy[1].items():
    if stamp not in original[1]:
        die(f"timestamp {stamp} is not in the original")
    if records != original[1][stamp]:
        die(f"the record of timestamp {stamp} differs from the original")
print(len(copy[1]))
EOF
}

# The depth values at the centre pixel (80, 60) of every record of the mode-1 file $1.
centre_depths() {
  python3 - "$WORKDIR/$1" <<'EOF'
import struct, sys
data = open(sys.argv[1], "rb").read()
offset, lines = 69, data[2]
while offset < len(data):
    width, height = struct.unpack_from("<HH", data, offset + 1)
    depth = offset + 15 + (width if lines else 0)
    print(struct.unpack_from("<H", data, depth + 2 * (60 * width + 80))[0])
    offset = depth + 2 * 2 * width * height
EOF
}

# Recording: a small simulated camera with embedded lines, a dump in each mode.
start_shell "QRX100A:160x120"
wait_for "LumoraShell>"
type_line "search"
select_camera 0
wait_for_line "$P"
for mode in 0 1 2 3; do
  expect_after "$P" "run ${MASKS[$mode]}" "-> result : success"
  dump $mode "mode$mode.lmr"
  expect_after "$P" "stop" "-> result : success"
done
type_line "quit"
[ "$(wait_exit 10)" = 0 ] || fail "exit status after recording"

# Playing: the four files as devices; each is dumped again while it plays, with the mask
# of its mode, after a refused mask. The mode-1 file shows its windows meanwhile.
start_shell "replay:mode0.lmr,replay:mode1.lmr,replay:mode2.lmr,replay:mode3.lmr"
wait_for "LumoraShell>"
type_line "search"
wait_for "3) source name : QRX100A, serialNumber : LM"
wait_for "uri : replay:3"
for mode in 0 1 2 3; do
  select_camera $mode
  wait_for_line "$P"
  expect_after "$P" "run ${MASKS[$(((mode + 1) % 4))]}" "-> result : invalid parameter"
  expect_after "$P" "run ${MASKS[$mode]}" "-> result : success"
  if [ $mode = 1 ]; then
    wait_window "^QRX100A Amplitude"
    wait_window "^QRX100A Depth  x:80, y:60, d:[0-9]+$"
    title=$(xdo getwindowname "$(xdo search --name "^QRX100A Depth  x:" | head -1)")
    depths=$(centre_depths mode1.lmr)
    grep -qx -- "${title##*, d:}" <<<"$depths" ||
      fail "read-out \"$title\" is not a recorded depth at the centre: $(tr '\n' ' ' <<<"$depths")"
  fi
  dump $mode "replay$mode.lmr"
  expect_after "$P" "stop" "-> result : success"
  expect_after "$P" "deselect" "-> result : success"
  matched=$(python_match "mode$mode.lmr" "replay$mode.lmr") || fail "mode $mode: $matched"
  echo "mode $mode: $matched records of the replay matched"
done
type_line "quit"
[ "$(wait_exit 10)" = 0 ] || fail "exit status after playing"
check_terminal_restored
echo "replay: passed"
