#!/usr/bin/env bash
# The main job: builds (installing what is missing) and runs the demo reconstructions on
# built-in synthetic data. Pictures go to out/, quality figures to the terminal.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/build.sh" default
mkdir -p "$root/out"
cd "$root"
octave-cli --norc --quiet --no-window-system --no-history --eval \
  "addpath('$root/build/mex', '$root/examples'); mrkit_demo('$root/out');"
