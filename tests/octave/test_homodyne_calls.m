% Effects of the homodyne MEX file through Octave: in-place weighting and phase removal on
% real data, the safe forms that leave every input untouched, and commands that do nothing.

%!function h = weights (n, a)
%!  # The homodyne weighting of n samples with first sampled coordinate a < 0, in double.
%!  k = (0:n-1)' - floor (n / 2);
%!  h = 2 * ones (n, 1);
%!  h(k <= a) = 0;
%!  m = k > a & k < 0;
%!  h(m) = 1 - (k(m) / a) .^ 2;
%!  m = k >= 0 & k < -a;
%!  h(m) = 1 + (k(m) / a) .^ 2;
%!endfunction

%!test  # filter in place on real data: the worked rows, and the centre block returned
%! d = single (1:256)';
%! low = homodyne ("filter", d, [-20 127], [], []);
%! assert (size (low), [41 1]);
%! assert (class (low), "single");
%! assert (low, single (109:149)');
%! assert (d([1 109 119 129 139 149 256])', single ([0 0 119*0.75 129 139*1.25 149*2 512]));
%! assert (d, single (weights (256, -20) .* (1:256)'), 1e-4);

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
%! n = [32 24];
%! re = single (reshape (1:prod (n), n));
%! for data = {re, complex(re, -2 * re)}
%!   x = data{1};
%!   before = x;
%!   [low, w] = homodyne ("filter", x, [], [-4 11], []);
%!   assert (x, before);
%!   assert (class (w), "single");
%!   assert (iscomplex (w), iscomplex (x));
%!   assert (w, x .* single (weights (24, -4))', 1e-4 * max (abs (x(:))));
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
