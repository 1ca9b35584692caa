% Randomised calls of both modules, valid and with one argument broken (fuzz_calls.m): the
% host survives every one, messages name their command and argument (homodyne's are its
% own), inputs stay as they were. Fixed seeds, so a failure names a call that can be replayed.

%!test
%! for seed = 1:4
%!   counts = fuzz_calls(seed, 75);
%!   assert(all(counts > 0), "seed %d: %d valid, %d refused, %d other", seed, counts);
%! end
