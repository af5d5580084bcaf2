#!/usr/bin/env bash
# Installs the Debian packages that building and testing DiscHive core needs.
# Idempotent: prints nothing and changes nothing when every package is present.
# Works as root without a terminal (CI) or through sudo for a developer.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git clang-format
  libcurl4-openssl-dev libxml2-dev libssl-dev libsqlite3-dev
  libturbojpeg0-dev libjpeg62-turbo-dev
  libcli11-dev libfmt-dev nlohmann-json3-dev libcpp-httplib-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  tinyproxy curl sqlite3
  libtag1-dev
  libcdio-dev
  python3-aiosmtpd
)
# libtag1-dev: the tag library the reader benchmark compares against.
# libcdio-dev: CD drives and disc images (cue/bin, cdrdao .toc, nrg).
# Extra tools on request: the encoders and taggers that regenerate the audio
# fixtures and the sample music.
if [[ "${DISCHIVE_DEV_TOOLS:-0}" == 1 ]]; then
  packages+=(flac vorbis-tools lame id3v2 ffmpeg)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

sudo=()
if [[ $(id -u) -ne 0 ]]; then
  sudo=(sudo)
fi
echo "install-deps: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq >/dev/null
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
