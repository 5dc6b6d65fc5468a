#!/usr/bin/env bash
# Times Vantrix's export of the reference edit against the ffmpeg command line doing the same edit
# with the same encoder settings. The two run alternately (PAIRS times, at least 3) so that machine
# noise hits both alike; prints each run, both medians, the ratio Vantrix / ffmpeg and each side's
# peak resident memory. A third column is the floor: the encoder alone, the ffmpeg command line
# encoding Vantrix's output pictures from raw frames with the same settings (no decoding, no edit).
#
# Usage: bench/compare-export.sh [BUILD_DIR] [MEDIA_DIR] [PAIRS]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build}
media=${2:-$here/../bench-media}
pairs=${3:-3}
[ "$pairs" -ge 3 ] || pairs=3

"$here/make-media.sh" "$media" >/dev/null
src="$media/ref720.mp4"
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

graph='[0:v]split=5[v0][v1][v2][v3][v4];
[v0]trim=2.5:5,setpts=PTS-STARTPTS[a0];
[v1]trim=5:10,setpts=(PTS-STARTPTS)/4,fps=30[a1];
[v2]trim=10:15,setpts=PTS-STARTPTS[a2];
[v3]trim=15:20,setpts=(PTS-STARTPTS)/16,fps=30[a3];
[v4]trim=20:27.5,setpts=PTS-STARTPTS[a4];
[0:a]asplit=3[s0][s2][s4];
[s0]atrim=2.5:5,asetpts=PTS-STARTPTS[b0];
aevalsrc=0:d=1.25:s=48000[b1];
[s2]atrim=10:15,asetpts=PTS-STARTPTS[b2];
aevalsrc=0:d=0.3125:s=48000[b3];
[s4]atrim=20:27.5,asetpts=PTS-STARTPTS[b4];
[a0][b0][a1][b1][a2][b2][a3][b3][a4][b4]concat=n=5:v=1:a=1[v][a]'

# Runs a command under GNU time; prints "seconds peak_kib".
measure() {
  local log=$out/time.log
  /usr/bin/time -f '%e %M' -o "$log" "$@" >/dev/null 2>&1
  cat "$log"
}

# The raw pictures for the floor, from a first export.
"$build/bench/vantrix-bench" export "$src" "$out/v.mp4" --trim 2.5 27.5 --segment 5 10 4 --segment 15 20 16 >/dev/null
ffmpeg -nostdin -v error -y -i "$out/v.mp4" -an -f rawvideo -pix_fmt yuv420p "$out/raw.yuv"
size=$(ffprobe -v error -select_streams v:0 -show_entries stream=width,height -of csv=s=x:p=0 "$out/v.mp4")

vantrix=(); peer=(); floor=(); vmem=(); pmem=()
for i in $(seq "$pairs"); do
  read -r s m < <(measure "$build/bench/vantrix-bench" export "$src" "$out/v.mp4" \
    --trim 2.5 27.5 --segment 5 10 4 --segment 15 20 16)
  vantrix+=("$s"); vmem+=("$m")
  read -r s m < <(measure ffmpeg -nostdin -y -i "$src" -filter_complex "$graph" -map '[v]' -map '[a]' \
    -c:v libx264 -preset medium -crf 18 -pix_fmt yuv420p -c:a aac -b:a 192k -ar 48000 -movflags +faststart "$out/f.mp4")
  peer+=("$s"); pmem+=("$m")
  read -r s m < <(measure ffmpeg -nostdin -y -f rawvideo -pix_fmt yuv420p -s "$size" -r 30 -i "$out/raw.yuv" \
    -c:v libx264 -preset medium -crf 18 -pix_fmt yuv420p "$out/e.mp4")
  floor+=("$s")
  echo "pair $i: vantrix ${vantrix[-1]} s (${vmem[-1]} KiB), ffmpeg ${peer[-1]} s (${pmem[-1]} KiB), encoder alone ${floor[-1]} s"
done

median() { printf '%s\n' "$@" | sort -g | awk '{a[NR]=$1} END {print (NR%2 ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2)}'; }
mv=$(median "${vantrix[@]}"); mp=$(median "${peer[@]}")
echo "median vantrix ${mv} s, ffmpeg ${mp} s, ratio $(awk -v a="$mv" -v b="$mp" 'BEGIN{printf "%.3f", a/b}')"
mf=$(median "${floor[@]}")
echo "encoder alone ${mf} s, $(awk -v a="$mf" -v b="$mp" 'BEGIN{printf "%.3f", a/b}') of ffmpeg's time"
echo "peak memory vantrix $(median "${vmem[@]}") KiB, ffmpeg $(median "${pmem[@]}") KiB"
