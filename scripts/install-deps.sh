#!/usr/bin/env bash
# Installs the Debian packages sonvex builds and tests with, where they are missing.
set -euo pipefail
packages=(g++ cmake ninja-build pkg-config ccache clang
          libavcodec-dev libavformat-dev libavutil-dev libflac-dev libsoxr-dev libgtest-dev
          libclang-rt-14-dev  # libFuzzer and the sanitizer runtimes of the clang fuzz build
          ffmpeg flac sox
          python3-jsonschema groff  # schema check of the JSON listing; man page rendering
          mkvtoolnix      # mkvinfo: an oracle of the Matroska tests only
          libbluray-bin   # bd_list_titles: an oracle of the disc tests and bench only
          libbluray-dev)  # libbluray's playlist and clip-info parsers: an oracle of the disc tests only
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}" >/dev/null
fi
