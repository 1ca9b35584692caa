#!/usr/bin/env bash
# The main job: builds (installing what is missing) and runs the demo reconstructions on
# built-in synthetic data, in Octave and in Python. Pictures go to out/ (the Python demo's to
# out/python), quality figures to the terminal.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/build.sh" default
mkdir -p "$root/out"
cd "$root"
octave-cli --norc --quiet --no-window-system --no-history --eval \
  "addpath('$root/build/mex', '$root/examples'); mrkit_demo('$root/out');"
if [ -d "$root/build/python/mrkit" ]; then
  PYTHONPATH="$root/build/python${PYTHONPATH:+:$PYTHONPATH}" \
    /usr/bin/python3 "$root/examples/python/demo.py" --out "$root/out/python"
fi
