% Effects of the homodyne MEX file through Octave: in-place weighting and phase removal on
% real data, the safe forms that leave every input untouched, and commands that do nothing.
% The weights themselves are the C++ tests'.

%!test  # filter in place on real data: the worked rows, and the centre block returned
%! d = single (1:256)';
%! low = homodyne ("filter", d, [-20 127], [], []);
%! assert (size (low), [41 1]);
%! assert (class (low), "single");
%! assert (low, single (109:149)');
%! assert (d([1 109 119 129 139 149 256])', single ([0 0 119*0.75 129 139*1.25 149*2 512]));

%!test  # multiply in place on real data; sizes other than the data's are interpolated
%! d = single ([5 7 -3 2]);
%! homodyne ("multiply", d, single ([3 -2 -1 4]));
%! assert (d, single ([5 -7 3 2]));
%! d = single ([1 1 1]);
%! homodyne ("multiply", d, single ([2 -2]));  # positions 0, 0.5, 1: the middle value is 0
%! assert (d(1), single (1));
%! assert (isnan (d(2)));
%! assert (d(3), single (-1));

%!test  # safe filter: the weighted copy comes back, the data stays (real and complex)
%! re = single (reshape (1:32 * 24, 32, 24));
%! inplace = single (reshape (1:32 * 24, 32, 24));  # its own storage: written in place
%! homodyne ("filter", inplace, [], [-4 11], []);
%! for data = {{re, inplace}, {complex(re, -2 * re), complex(inplace, -2 * inplace)}}
%!   [x, want] = data{1}{:};
%!   before = x;
%!   [low, w] = homodyne ("filter", x, [], [-4 11], []);
%!   assert (x, before);
%!   assert (class (w), "single");
%!   assert (isequal (w, want));  # as in place; times 2 is exact
%!   assert (low, x(:, 9:17));
%! end

%!test  # safe multiply: a new real array, the inputs stay (complex data and low resolution)
%! x = single ([1+2i, 3-1i; -2+0.5i, 4i]);
%! l = single ([2-1i, 1; -1i, 3+4i]);
%! bx = x;
%! bl = l;
%! img = homodyne ("multiply", x, l);
%! assert (x, bx);
%! assert (l, bl);
%! assert (isreal (img) && strcmp (class (img), "single"));
%! assert (img, real (x .* conj (l)) ./ abs (l), 1e-6);

%!test  # sparse and dense ranges filter alike
%! x = single (1:16)';
%! [l1, w1] = homodyne ("filter", x, [0 4], [], []);
%! [l2, w2] = homodyne ("filter", x, sparse ([0 4]), [], []);
%! assert (isequal (l1, l2) && isequal (w1, w2));
%! assert (l1, single (9));

%!test  # unknown commands and near misses do nothing at all
%! for cmd = {"Filter", "filter ", "filterx", "", "multiplyx", "MULTIPLY", " multiply", ...
%!            char(zeros(1, 0)), ["fil"; "ter"]}
%!   d = single (1:8)';
%!   lastwarn ("");
%!   homodyne (cmd{1}, d, [-1 3], [], []);
%!   homodyne (cmd{1}, d, single (8:-1:1)');
%!   assert (d, single (1:8)');
%!   assert (lastwarn (), "");
%! end
