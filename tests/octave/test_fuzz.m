% Randomised calls of both modules, valid and with one argument broken (fuzz_calls.m): the
% host survives every one, messages name their command and argument (homodyne's are its
% own), inputs stay as they were. Fixed seeds, so a failure names a call that can be replayed.

%!test
%! counts = fuzz_calls(1, 75);
%! assert(all(counts > 0));

%!test
%! counts = fuzz_calls(2, 75);
%! assert(all(counts > 0));

%!test
%! counts = fuzz_calls(3, 75);
%! assert(all(counts > 0));

%!test
%! counts = fuzz_calls(4, 75);
%! assert(all(counts > 0));
