#!/usr/bin/env bash
# Builds (installing what is missing) and runs every test: C++ (GoogleTest) and Octave.
#   scripts/test.sh [default|asan|tsan|avx2] [extra ctest arguments]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
preset=${1:-default}
[ $# -gt 0 ] && shift
"$root/scripts/build.sh" "$preset"
cd "$root"
ctest --preset "$preset" "$@"
