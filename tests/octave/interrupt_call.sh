#!/usr/bin/env bash
# Ctrl-C during a long mrkit call (SENSE over 300 sensitivity sets): Octave must take the
# interrupt soon, as it does between statements, rather than when the call would have finished;
# the call returns nothing. "Soon" is against the time the whole call would take, estimated
# from 30 of the sets in the same process (sanitizer builds are many times slower).
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
  % Real data: nothing for the host to convert before the library starts.
  folded = repmat(single(randn(96, 24, 1, 16)), [1 1 1 1 1 1 1 sets]);
  sens = repmat(single(randn(96, 96, 1, 16)), [1 1 1 1 sets]);
  t = tic();
  mrkit('sense', folded(:, :, :, :, 1, 1, 1, 1:30), sens(:, :, :, :, 1:30), [96 96]);
  printf('whole call about %d ms\n', round(toc(t) * 1000 * sets / 30));
  printf('calling\n');
  fflush(stdout);
  t = tic();
  img = mrkit('sense', folded, sens, [96 96]);
  printf('returned after %.1f s\n', toc(t));" >"$log" 2>&1 &
pid=$!
for _ in $(seq 3000); do
  grep -q calling "$log" && break
  sleep 0.1
done
sleep 1
kill -INT "$pid"
signalled=$(date +%s%N)
wait "$pid"
ms=$((($(date +%s%N) - signalled) / 1000000))
cat "$log"
whole=$(sed -n 's/^whole call about \([0-9]*\) ms$/\1/p' "$log")
echo "ended $ms ms after the interrupt"
if grep -q "returned after" "$log" || [ -z "$whole" ]; then
  echo "FAILED: the call ran to its end"
  exit 1
fi
if [ "$ms" -gt $((whole / 3)) ]; then
  echo "FAILED: the interrupt took effect only after $ms ms"
  exit 1
fi
