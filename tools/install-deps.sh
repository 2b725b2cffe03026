#!/usr/bin/env bash
# Installs what building, testing and running Convoke needs on Debian 12, and nothing when it is
# all there already. Run as root.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang pkg-config binutils   # toolchain (clang: sanitizers and fuzzing)
  libclang-rt-14-dev                                # clang's sanitizer and libFuzzer runtimes
  uuid-dev                                          # the product: uuid_generate
  libgtest-dev libgmock-dev                         # tests
  libbenchmark-dev libpugixml-dev                   # benchmarks (pugixml is a comparison peer)
  libpng-dev                                        # convoke-demo --snapshot
)

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
