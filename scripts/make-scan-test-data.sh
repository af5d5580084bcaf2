#!/bin/sh
# Makes the audio fixtures of the folder-scan tests: one short MP3 stream without
# tags (the tests put ID3v2 tags of their own in front of it).
# Needs: ffmpeg, lame.
set -eu
out="$(dirname "$0")/../tests/data/scan"
mkdir -p "$out"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ffmpeg -loglevel error -nostdin -y -f lavfi -i "sine=frequency=440:sample_rate=11025:duration=1" \
  -ac 1 -c:a pcm_s16le -bitexact -map_metadata -1 "$work/tone.wav"
lame --quiet -m m -b 32 --resample 11.025 "$work/tone.wav" "$out/tone.mp3"
