#!/usr/bin/env bash
# Installs whatever is missing, then configures and builds one CMake preset (default: "default").
#   scripts/build.sh [default|asan|tsan|avx2]
set -euo pipefail
preset=${1:-default}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

packages=(g++ cmake make pkg-config libeigen3-dev libgtest-dev libbenchmark-dev octave liboctave-dev
          python3-dev python3-numpy python3-pybind11 python3-pytest python3-distributed python3-matplotlib)
[ "$preset" = tsan ] && packages+=(clang libomp-dev)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "== installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
