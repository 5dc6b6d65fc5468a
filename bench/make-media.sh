#!/bin/sh
# Writes the benchmarks' reference media into DIR (created if missing) with the ffmpeg command
# line. The files are deterministic, so one already in DIR is kept rather than made again.
#
#   bench/make-media.sh DIR
#
# Each file is written under a temporary name and renamed when ffmpeg succeeds: an interrupted
# run leaves no partial file that a later run would take for a finished one.
set -eu

if [ $# -ne 1 ]; then
  echo "usage: $0 DIR" >&2
  exit 2
fi
dir=$1
command -v ffmpeg >/dev/null 2>&1 || { echo "make-media.sh: ffmpeg not found" >&2; exit 1; }
mkdir -p "$dir"

partial=""
trap 'if [ -n "$partial" ]; then rm -f "$partial"; fi' EXIT INT TERM

# generate NAME FFMPEG-ARGUMENTS...: the arguments are everything but the output file.
generate() {
  name=$1
  shift
  if [ -e "$dir/$name" ]; then
    echo "kept $dir/$name"
    return
  fi
  partial="$dir/.$name.partial"
  rm -f "$partial"
  ffmpeg -nostdin -hide_banner -loglevel error "$@" -f mp4 "$partial"
  mv "$partial" "$dir/$name"
  partial=""
  echo "wrote $dir/$name"
}

generate ref720.mp4 \
  -f lavfi -i testsrc2=size=1280x720:rate=30 -f lavfi -i sine=frequency=440:sample_rate=48000 -t 30 \
  -c:v libx264 -preset veryfast -g 60 -bf 2 -pix_fmt yuv420p -c:a aac -b:a 128k -shortest

generate ref1080.mp4 \
  -f lavfi -i testsrc2=size=1920x1080:rate=30 -f lavfi -i sine=frequency=440:sample_rate=48000 -t 60 \
  -c:v libx264 -preset veryfast -g 60 -bf 2 -pix_fmt yuv420p -c:a aac -b:a 128k -shortest

generate long1080.mp4 \
  -f lavfi -i testsrc2=size=1920x1080:rate=30 -t 360 \
  -c:v libx264 -preset ultrafast -g 300 -b:v 1M
