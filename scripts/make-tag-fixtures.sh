#!/bin/sh
# Regenerates the tag-reader fixtures under tests/data/tags/ with real encoders
# and taggers from Debian packages: flac/metaflac (flac), oggenc/vorbiscomment
# (vorbis-tools), lame, id3v2 and ffmpeg. Every file holds a second or less of
# audio at a low rate so that the committed set stays small.
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
out="$root/tests/data/tags"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$out"

ff() { ffmpeg -hide_banner -loglevel error -y "$@"; }
# Output options that keep the generated files the same from run to run.
exact="-fflags +bitexact"

# Sources: one second of a 440 Hz tone at 8 and 16 kHz, and tiny cover images.
ff -f lavfi -i "sine=frequency=440:sample_rate=8000:duration=1" -ac 1 -c:a pcm_s16le -fflags +bitexact -flags:a +bitexact "$work/tone8k.wav"
ff -f lavfi -i "sine=frequency=440:sample_rate=16000:duration=1" -ac 1 -c:a pcm_s16le -fflags +bitexact -flags:a +bitexact "$work/tone16k.wav"
ff -f lavfi -i "sine=frequency=440:sample_rate=44100:duration=1" -ac 1 -c:a pcm_s16le -fflags +bitexact -flags:a +bitexact "$work/tone44k.wav"
ff -f lavfi -i "color=c=red:s=8x8:d=1" -frames:v 1 "$work/cover.jpg"
ff -f lavfi -i "color=c=blue:s=8x8:d=1" -frames:v 1 "$work/cover.png"
ff -f lavfi -i "color=c=green:s=8x8:d=1" -frames:v 1 "$work/cover.gif"

# FLAC: Vorbis comments with repeated names and a front cover.
flac --silent --force -o "$out/tagged.flac" "$work/tone8k.wav"
metaflac --remove-all-tags --dont-use-padding \
  --set-tag="TITLE=Blue Tone" --set-tag="ARTIST=Anna" --set-tag="ARTIST=Bert" \
  --set-tag="ALBUM=Test Album" --set-tag="TRACKNUMBER=3" --set-tag="DISCNUMBER=2" \
  --set-tag="ARTISTSORT=Anna" --set-tag="ARTISTSORT=Bert" \
  --set-tag="DESCRIPTION=first words" --set-tag="COMMENT=later words" \
  --set-tag="GENRE=Ambient" --set-tag="DATE=2004-05-06" --set-tag="BPM=-5" \
  --set-tag="COMPOSER=Carl" --set-tag="ORGANIZATION=Label Co" --set-tag="LOCATION=Hall" \
  --set-tag="TITLE=Blåa tonen" \
  --import-picture-from="3|image/jpeg|front||$work/cover.jpg" \
  "$out/tagged.flac"

# FLAC whose only pictures must be ignored: a back cover and a GIF front cover.
flac --silent --force -o "$out/wrong-pictures.flac" "$work/tone8k.wav"
metaflac --set-tag="TITLE=No Cover" \
  --import-picture-from="4|image/png|back||$work/cover.png" \
  --import-picture-from="3|image/gif|front||$work/cover.gif" \
  "$out/wrong-pictures.flac"

# FLAC with an ID3v2 tag in front of the stream (as some taggers write it).
cp "$out/tagged.flac" "$out/id3-front.flac"
id3v2 --song "ID3 Title" --artist "ID3 Artist" "$out/id3-front.flac"

# Ogg Vorbis, one small file and one whose comment packet spans several pages.
oggenc --quiet -q 0 --serial 1 -o "$out/tagged.ogg" \
  -t "Ogg Title" -a "Ogg Artist" -l "Ogg Album" -N 7 -G "Jazz" -d 1999 \
  -c "DISCNUMBER=1" -c "LYRICS=la la" "$work/tone8k.wav"
lyrics=$(head -c 9000 /dev/zero | tr '\0' 'x')
oggenc --quiet -q 0 --serial 2 -o "$out/long-comment.ogg" -t "Long" "$work/tone8k.wav"
vorbiscomment -a -t "LYRICS=$lyrics" -t "ARTIST=After The Long One" "$out/long-comment.ogg"

# MP3: CBR at 44.1 kHz (MPEG-1) with an Info header and an ID3v2.3 tag from
# id3v2, CBR without any Xing header, VBR at 16 kHz (MPEG-2, a cover picture)
# and 8 kHz (MPEG-2.5) with ID3v2.4 and ID3v2.3 tags and Xing headers from ffmpeg.
lame --quiet -b 64 "$work/tone44k.wav" "$out/cbr-id3v23.mp3"
id3v2 --song "CBR Song" --artist "Lame Artist" --album "Lame Album" --year 2001 \
  --track 4/12 --genre 17 --comment "first note" "$out/cbr-id3v23.mp3"
id3v2 --TPOS 2 --TCOM "Comp Oser" --TPUB "Pub Label" --TBPM 120 \
  --COMM "second note" "$out/cbr-id3v23.mp3"

lame --quiet -t -b 32 "$work/tone16k.wav" "$out/cbr-noxing.mp3"

lame --quiet -V 6 "$work/tone16k.wav" "$work/vbr16.mp3"
ff -i "$work/vbr16.mp3" -i "$work/cover.png" -map 0 -map 1 -c copy -id3v2_version 4 \
  -metadata title="Vbr Tïtle" -metadata artist="Ärtist" -metadata album="Vbr Album" \
  -metadata track=9 -metadata genre="(13)" -metadata date=2010 \
  -metadata:s:v title="Album cover" -metadata:s:v comment="Cover (front)" \
  $exact "$out/vbr-id3v24.mp3"

lame --quiet -V 6 "$work/tone8k.wav" "$work/vbr8.mp3"
ff -i "$work/vbr8.mp3" -c copy -id3v2_version 3 \
  -metadata title="Acht kHz" -metadata artist="Ωmega" -metadata TBPM=98 \
  $exact "$out/mpeg25-id3v23.mp3"

# WMA (ASF) with content description and extended content description; the
# zero-based WM/Track as Windows Media Player writes it.
ff -i "$work/tone16k.wav" -c:a wmav2 -b:a 32k \
  -metadata title="Wma Title" -metadata artist="Wma Artist" -metadata album="Wma Album" \
  -metadata WM/Year=2003 -metadata genre="Rock" -metadata comment="Wma comment" \
  -metadata WM/Track=4 -metadata WM/PartOfSet=1 $exact "$out/tagged.wma"

# RIFF/WAVE, 8-bit, with a LIST/INFO chunk whose odd-sized title is padded.
ff -i "$work/tone8k.wav" -c:a pcm_u8 -metadata title="Wave Title" -metadata artist="Wave Artist" \
  $exact "$out/tagged.wav"

ls -l "$out"
