#!/usr/bin/env bash
# Installs what building, testing and running Convoke needs on Debian 12, and nothing when it is
# all there already. Run as root.
#
#   bash tools/install-deps.sh           the build, the tests and the demo on the simulated engines
#   bash tools/install-deps.sh --live    also the open engines and the meeting server for real
#                                        meetings (about 1 GB more)
#   bash tools/install-deps.sh --gui     also convoke-gallery's window (SDL2, SDL2_ttf, a font) and
#                                        Xvfb for its tests (the options may be combined)
set -euo pipefail

live=false
gui=false
for argument in "$@"; do
  case "$argument" in
    --live) live=true ;;
    --gui) gui=true ;;
    *) echo "usage: tools/install-deps.sh [--live] [--gui]" >&2; exit 2 ;;
  esac
done

packages=(
  cmake ninja-build g++ clang pkg-config binutils   # toolchain (clang: sanitizers and fuzzing)
  libclang-rt-14-dev                                # clang's sanitizer and libFuzzer runtimes
  uuid-dev                                          # the product: uuid_generate
  libgtest-dev libgmock-dev                         # tests
  libbenchmark-dev libpugixml-dev                   # benchmarks (pugixml is a comparison peer)
  libpng-dev                                        # convoke-demo --snapshot
)
if $live; then
  packages+=(
    janus                                           # the meeting server (a separate process)
    libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libgstreamer-plugins-bad1.0-dev  # webrtcbin
    gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad  # Opus, VP8
    gstreamer1.0-nice libnice-dev                   # ICE
    libsoup-3.0-dev libjson-glib-dev                # the server's HTTP API
    gstreamer1.0-plugins-base-apps gstreamer1.0-tools  # gst-device-monitor-1.0, gst-inspect-1.0
    iproute2 util-linux curl                        # tools/meeting-server: namespace, veth, probes
    libx11-dev                                      # the engines list X11 screens; x11-window
    xvfb xauth                                      # tools/live-features: a screen to share
    iptables                                        # tools/meeting-faults: random loss
    libnetfilter-queue-dev                          # tools/net-delay: the rig's link delay
  )
fi

if $gui; then
  packages+=(
    libsdl2-dev libsdl2-ttf-dev fonts-dejavu-core   # convoke-gallery: window, text, font
    xvfb xauth                                      # its tests: a display without a screen
  )
fi

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
