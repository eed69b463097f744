#!/usr/bin/env bash
# The shell's settings through "set" and "get", from a pipe: each with a good value, a
# wrong word and a number where a word is expected; the display ranges a select sets for
# each model family, which a deselect leaves. (A frame-rate band the camera misses, counted, is the soak's.)
source "$(dirname "$0")/lib.sh"

session() {
  (cd "$WORKDIR" && LUMORA_SIM_DEVICES=$1 "$SHELL_BIN" 2>"$WORKDIR/err" | tr -d '\r' |
    grep -v -e '^onLumora' -e '^FrameDumpSink:' | sed -E 's|^([EWID]/[A-Za-z]+):[0-9]+:|\1:NN:|')
}
check() {
  local got
  got=$(session "$1" <"$WORKDIR/in")
  [ "$got" = "$(cat "$WORKDIR/expected")" ] || fail "$(diff <(echo "$got") "$WORKDIR/expected")"
}
# Lines of "command|result" pairs become the session's input and its expected transcript.
script() {
  : >"$WORKDIR/in"
  : >"$WORKDIR/expected"
  local prompt=$1 line command result
  shift
  for line in "$@"; do
    command=${line%%|*} result=${line#*|}
    echo "$command" >>"$WORKDIR/in"
    echo "$prompt $command" >>"$WORKDIR/expected"
    [ -n "$result" ] && printf '%b\n' "$result" >>"$WORKDIR/expected"
    case $command in "select "*) prompt="${result#selected device(}" prompt="${prompt%%:*}:" ;; deselect) prompt="LumoraShell>" ;; esac
  done
}

ok="-> result : success" wrong="-> result : invalid parameter" no="-> result : not supported"
script "LumoraShell>" \
  "set display off|$ok" "get display|-> result : display off" "set display maybe|$wrong" "set display 1|$no" \
  "set display_resolution 1|$ok" "get display_resolution|-> result : display_resolution 1" \
  "set display_resolution big|$wrong" "set display_resolution 3|$no" \
  "set scale_rgb_max 5000|$ok" "get scale_rgb_max|-> result : scale_rgb_max 5000.000000" "set scale_rgb_max far|$wrong" \
  "set scale_rgb_min 100.5|$ok" "get scale_rgb_min|-> result : scale_rgb_min 100.500000" "set scale_rgb_min x|$wrong" \
  "set scale_gray_max 300|$ok" "get scale_gray_max|-> result : scale_gray_max 300.000000" "set scale_gray_max x|$wrong" \
  "set scale_gray_min 7|$ok" "get scale_gray_min|-> result : scale_gray_min 7.000000" "set scale_gray_min x|$wrong" \
  "set fps_error_check on|$ok" "get fps_error_check|-> result : fps_error_check on" \
  "set fps_error_check yes|$wrong" "set fps_error_check 1|$no" \
  "set fps_error_check_min 10|$ok" "get fps_error_check_min|-> result : fps_error_check_min 10.000000" \
  "set fps_error_check_min low|$no" \
  "set fps_error_check_max 20.5|$ok" "get fps_error_check_max|-> result : fps_error_check_max 20.500000" \
  "set fps_error_check_max high|$no" \
  "set log_level 9|-> result : out of range" "set log_level 2|$ok" "get log_level|-> result : log_level, 2" \
  "set frame_dump 0 5|E/FrameDumpSink:NN: Camera not exist!\n$ok" "set frame_dump zero 5|$no" "set frame_dump 0 five|$wrong" \
  "set frobnicate 1|$no" "get frobnicate|$no" \
  "search|0) source name : QRX100A, serialNumber : LM0536240000, uri : sim:0\n1) source name : QRX200AP, serialNumber : LM2F3C650001, uri : sim:1\n2) source name : ZZ9, serialNumber : LMEC47E40002, uri : sim:2" \
  "select 1|selected device(QRX200AP:LM2F3C650001)" \
  "get scale_rgb_max|-> result : scale_rgb_max 4000.000000" "get scale_rgb_min|-> result : scale_rgb_min 0.000000" \
  "get scale_gray_max|-> result : scale_gray_max 1400.000000" "get scale_gray_min|-> result : scale_gray_min 0.000000" \
  "deselect|$ok" "get scale_rgb_max|-> result : scale_rgb_max 4000.000000" \
  "select 0|selected device(QRX100A:LM0536240000)" \
  "get scale_rgb_max|-> result : scale_rgb_max 7000.000000" "get scale_gray_max|-> result : scale_gray_max 230.000000" \
  "deselect|$ok" "select 2|selected device(ZZ9:LMEC47E40002)" \
  "get scale_rgb_max|-> result : scale_rgb_max 3000.000000" "get scale_gray_max|-> result : scale_gray_max 200.000000"
check "QRX100A,QRX200AP,ZZ9"

echo "settings: passed"
