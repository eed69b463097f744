#!/usr/bin/env bash
# Depth quality measured live by the shell, against the truth of the simulated wall: a VGA
# QRX100A facing a wall 1500 mm away with 5 mm of Gaussian noise, then the wall turned by 10
# degrees, measured by "get depth_quality" from a scripted session; its refusals (no camera
# running, bad settings, an ROI outside the frame, lists that stop coming, no valid depth, no
# depth at all); and lmr quality of a dump of the turned wall made in the same session. (lmr's
# exit statuses are tests/lmr's.)
source "$(dirname "$0")/lib.sh"
# The noisy wall renders at a few lists a second under the sanitizers and emulation.
export RETRY_SECONDS=180

# Sends the line $1 and waits for its result line, which must end with $2; the lines it
# printed before must hold $3 when given. They are kept in REPORT.
answers() {
  local lines results
  lines=$(wc -l <"$OUT") results=$(out_count "-> result : ")
  say "$1"
  wait_out "-> result : " $((results + 1))
  REPORT=$(tail -n +$((lines + 1)) "$OUT")
  [[ "$(grep -a -- "-> result : " <<<"$REPORT" | head -1)" == *": $2" ]] || fail "\"$1\" did not answer \"$2\""
  [ -z "${3:-}" ] || grep -qaF -- "$3" <<<"$REPORT" || fail "\"$1\" did not say \"$3\""
}

# The figure named $1 in the report $4 (the last answer's when not given) lies from $2 to $3.
figure_within() {
  local value
  value=$(grep -aoE "^  $1 +[-+0-9.]+" <<<"${4:-$REPORT}" | tail -1 | grep -oE '[-+0-9.]+$') ||
    fail "no figure \"$1\" in: ${4:-$REPORT}"
  awk -v v="$value" -v low="$2" -v high="$3" 'BEGIN { exit !(v >= low && v <= high) }' ||
    fail "$1 $value, not $2 to $3"
}

# The turned wall's truth: the optical axis meets it 1500 mm away, its normal 10 degrees from
# the axis, every pixel valid; the plane-fit RMS (its residuals trimmed) and the per-pixel
# spread 5 mm +- 10%.
turned_wall() {
  figure_within "fill rate" 100 100 "$1"
  figure_within "distance" 1499 1501 "$1"
  figure_within "plane angle" 9.8 10.2 "$1"
  figure_within "plane-fit RMS" 4.5 5.5 "$1"
  figure_within "temporal noise" 4.5 5.5 "$1"
}

start_piped QRX100A 0
say search "select 0"
answers "get depth_quality" "invalid operation" "depth quality: the camera is not running"
for bad in "quality_roi 0" "quality_roi 10,10,0,5" "quality_frames 1" "quality_frames 2.5" "quality_truth -5"; do
  answers "set $bad" "invalid parameter"
done
answers "set depth_quality 1" "invalid operation"

# Facing the camera, with the true distance given: the Z accuracy.
for setting in "sim_scene wall:1500" "sim_noise 5" "quality_truth 1500"; do answers "set $setting" success; done
answers "get quality_truth" "quality_truth 1500"
answers "run 6" success
answers "get depth_quality" success "depth quality of QRX100A LM0536240000: 30 lists, ROI 192,144 256x192"
figure_within "Z accuracy" -2 2
figure_within "distance" 1499 1501
figure_within "plane angle" 0 0.2
answers "set quality_roi 700,0,10,10" success
answers "get quality_roi" "quality_roi 700,0,10,10"
answers "get depth_quality" "out of range" "depth quality: the ROI 700,0 10x10 lies outside the 640x480 frame"
answers "set quality_roi 40" success
answers "set sim_fault 0:stall:9000" success
answers "get depth_quality" timeout "depth quality: the lists stopped coming"
answers stop success
# No valid depth (every amplitude under the threshold), and no depth at all.
answers "set amplitude_threshold 65535" success
answers "run 6" success
answers "get depth_quality" fail "depth quality: fewer valid pixels than a plane needs (3) in every list"
answers stop success
answers "run 4" success
answers "get depth_quality" "not found" "depth quality: no depth frames and no point cloud"
answers stop success
answers "set amplitude_threshold 10" success

# Turned by 10 degrees, measured live and from a dump of it. The camera renders a loop of 30
# lists once and then delivers them in turn at 30 a second (each list's noise its own), so that
# the dump's writer, which ends after 100 ms without a list, keeps them all under the sanitizers.
for setting in "sim_scene wall:1500:10" "sim_loop 30" "quality_truth 0" "log_level 3"; do
  answers "set $setting" success
done
answers "run 6" success
answers "get depth_quality" success "depth quality of QRX100A LM0536240000: 30 lists"
turned_wall "$REPORT"
say "set frame_dump 1 30"
wait_out "dump of 30 lists" 1
say stop
end_piped
turned_wall "$("$LMR_BIN" quality "$(dump_file)" 2>&1)"
echo "quality: passed"
