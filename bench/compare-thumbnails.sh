#!/bin/sh
# Filmstrip thumbnails against the ffmpeg command line: `vantrix-bench thumbnails` makes COUNT
# thumbnails HEIGHT pixels high at the editor's sample times (i * duration / COUNT), and ffmpeg
# grabs the same frames one by one (`ffmpeg -ss T -i FILE -frames:v 1 -vf scale=-2:HEIGHT`). The
# two sides run alternately, RUNS times each, first one then the other leading; the medians of the
# wall-clock times and their ratio (vantrix / ffmpeg) are printed for each file.
#
#   bench/compare-thumbnails.sh [-n RUNS] [-c COUNT] [-H HEIGHT] [-b VANTRIX_BENCH] FILE...
#
# The vantrix side's time includes opening the file (it prints wall_s from the start of the load).
set -eu

runs=5
count=12
height=64
bench=build/bench/vantrix-bench
while getopts n:c:H:b: option; do
  case $option in
    n) runs=$OPTARG ;;
    c) count=$OPTARG ;;
    H) height=$OPTARG ;;
    b) bench=$OPTARG ;;
    *) echo "usage: $0 [-n RUNS] [-c COUNT] [-H HEIGHT] [-b VANTRIX_BENCH] FILE..." >&2; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
[ $# -ge 1 ] || { echo "usage: $0 [-n RUNS] [-c COUNT] [-H HEIGHT] [-b VANTRIX_BENCH] FILE..." >&2; exit 2; }
[ -x "$bench" ] || { echo "$bench not found; build the vantrix-bench target first" >&2; exit 1; }

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT INT TERM

now() { date +%s.%N; }
median() { sort -g | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
json() { sed -n "s/.*\"$1\":\"\{0,1\}\([^,\"}]*\).*/\1/p"; }

run_vantrix() {
  "$bench" thumbnails "$1" --count "$count" --height "$height" | json wall_s >> "$scratch/vantrix"
}

run_ffmpeg() {
  start=$(now)
  for t in $times; do
    ffmpeg -nostdin -v error -y -ss "$t" -i "$1" -frames:v 1 -vf "scale=-2:$height" "$scratch/frame.png"
  done
  end=$(now)
  awk -v a="$start" -v b="$end" 'BEGIN { print b - a }' >> "$scratch/ffmpeg"
}

for file in "$@"; do
  duration=$("$bench" open "$file" | json duration)
  times=$(echo "$duration" | awk -F/ -v n="$count" '{ for (i = 0; i < n; i++) printf "%.6f ", i * $1 / $2 / n }')
  : > "$scratch/vantrix"
  : > "$scratch/ffmpeg"
  i=0
  while [ $i -lt "$runs" ]; do
    if [ $((i % 2)) -eq 0 ]; then run_vantrix "$file"; run_ffmpeg "$file"; else run_ffmpeg "$file"; run_vantrix "$file"; fi
    i=$((i + 1))
  done
  v=$(median < "$scratch/vantrix")
  f=$(median < "$scratch/ffmpeg")
  printf '%s: %d thumbnails at %dpx, %d runs: vantrix median %.3f s, ffmpeg median %.3f s, ratio %.3f\n' \
    "$(basename "$file")" "$count" "$height" "$runs" "$v" "$f" "$(awk -v a="$v" -v b="$f" 'BEGIN { print a / b }')"
done
