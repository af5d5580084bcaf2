#!/bin/sh
# Makes the sample music library under examples/music with real encoders:
# a few short albums (FLAC, Ogg Vorbis, MP3 with ID3v2) laid out the ways the
# folder scan understands, one compilation, one folder of "Track NN" files
# without tags, and one folder excluded by its dischive.ini.
#
# Needs: ffmpeg (tones and the cover picture), flac, oggenc, lame, id3v2.
# Usage: scripts/make-sample-music.sh [OUTPUT_FOLDER]   (default examples/music)
set -eu

out=${1:-"$(dirname "$0")/../examples/music"}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# tone NAME FREQUENCY SECONDS: a mono 11025 Hz 16-bit WAV file.
tone() {
  ffmpeg -loglevel error -nostdin -y -f lavfi \
    -i "sine=frequency=$2:sample_rate=11025:duration=$3" -ac 1 -c:a pcm_s16le -bitexact -map_metadata -1 "$work/$1.wav"
}

rm -rf "$out"
mkdir -p "$out"

# 1. Artist/Album layout, FLAC with Vorbis comments and a cover picture file.
dir="$out/Brightfern Quartet/Morning Light"
mkdir -p "$dir"
n=1
for title in "Sunrise" "Dew on the Glass" "Open Window"; do
  tone t$n $((330 + n * 110)) 2
  flac --silent --best -o "$dir/0$n $title.flac" \
    -T "TITLE=$title" -T "ARTIST=Brightfern Quartet" -T "ALBUM=Morning Light" \
    -T "TRACKNUMBER=$n" -T "DATE=2019" -T "GENRE=Jazz" "$work/t$n.wav"
  n=$((n + 1))
done
ffmpeg -loglevel error -nostdin -y -f lavfi -i "color=c=0x3a6ea5:size=64x64" -frames:v 1 -bitexact \
  -q:v 8 "$dir/cover.jpg"

# 2. "Artist - Album" layout, Ogg Vorbis with comments.
dir="$out/The Lamplighters - Harbour Lights"
mkdir -p "$dir"
n=1
for title in "Harbour Lights" "Low Tide" "Ferry at Dusk"; do
  tone o$n $((220 + n * 55)) 2
  oggenc --quiet -q -1 --resample 11025 -o "$dir/0$n $title.ogg" \
    -t "$title" -a "The Lamplighters" -l "Harbour Lights" -N "$n" -d 2021 -G "Folk" \
    "$work/o$n.wav"
  n=$((n + 1))
done

# 3. A compilation: MP3 files by different artists, one comment shared by all.
dir="$out/Summer Sampler"
mkdir -p "$dir"
n=1
for pair in "The Lamplighters:Sea Breeze" "Brightfern Quartet:Afternoon" \
  "Maya Korhonen:Lemonade" "Night Sounds:Crickets"; do
  artist=${pair%%:*}
  title=${pair#*:}
  tone m$n $((440 + n * 60)) 1
  lame --quiet -m m -b 32 --resample 11.025 "$work/m$n.wav" "$dir/0$n $title.mp3"
  id3v2 -t "$title" -a "$artist" -A "Summer Sampler" -T "$n/4" -y 2022 \
    -c "Free sampler of the sample library" "$dir/0$n $title.mp3" >/dev/null
  n=$((n + 1))
done

# 4. Files without tags named "Track NN": numbers come from the names, the
#    artist and album from the folder's name.
dir="$out/Night Sounds - Field Recordings"
mkdir -p "$dir"
for n in 1 2 3; do
  tone f$n $((150 + n * 40)) 1
  flac --silent --best --no-padding -o "$dir/Track 0$n.flac" "$work/f$n.wav"
done

# 5. A folder its dischive.ini keeps out of the catalogue.
dir="$out/Drafts"
mkdir -p "$dir"
tone d1 600 1
oggenc --quiet -q -1 --resample 11025 -o "$dir/unfinished idea.ogg" -t "Unfinished Idea" \
  "$work/d1.wav"
printf '; Work in progress: not part of the catalogue yet.\n[ScanOptions]\nExclude=1\n' \
  >"$dir/dischive.ini"

du -sh "$out"
