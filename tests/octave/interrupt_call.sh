#!/usr/bin/env bash
# Ctrl-C during a long mrkit call (SENSE over 300 sensitivity sets, about 15 s): Octave must
# take the interrupt within a few seconds, as it does between statements, rather than when the
# call would have finished; the call returns nothing.
#   interrupt_call.sh OCTAVE MEX_DIR
set -u
octave=$1
mexdir=$2
log=$(mktemp)
trap 'rm -f "$log"' EXIT
"$octave" --norc --quiet --no-window-system --no-history --eval "
  addpath('$mexdir');
  sets = 300;
  randn('state', 3);
  c = @(varargin) complex(single(randn(varargin{:})), single(randn(varargin{:})));
  folded = repmat(c(96, 24, 1, 16), [1 1 1 1 1 1 1 sets]);
  sens = repmat(c(96, 96, 1, 16), [1 1 1 1 sets]);
  printf('calling\n');
  fflush(stdout);
  t = tic();
  img = mrkit('sense', folded, sens, [96 96]);
  printf('returned after %.1f s\n', toc(t));" >"$log" 2>&1 &
pid=$!
for _ in $(seq 1200); do
  grep -q calling "$log" && break
  sleep 0.1
done
sleep 3
kill -INT "$pid"
signalled=$(date +%s%N)
wait "$pid"
ms=$((($(date +%s%N) - signalled) / 1000000))
cat "$log"
echo "ended $ms ms after the interrupt"
if grep -q "returned after" "$log"; then
  echo "FAILED: the call ran to its end"
  exit 1
fi
if [ "$ms" -gt 5000 ]; then
  echo "FAILED: the interrupt took effect only after $ms ms"
  exit 1
fi
