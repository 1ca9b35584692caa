% Argument checks of the homodyne MEX file: each message, and which check comes first when
% several fail. Every call below fails exactly one check that precedes all others it fails.

%!function expect_error (text, varargin)
%!  try
%!    homodyne (varargin{:});
%!  catch err
%!    assert (err.message, ["homodyne: " text]);
%!    return;
%!  end_try_catch
%!  error ("no error, expected: %s", text);
%!endfunction

%!shared d, r
%! d = single (ones (16, 8));
%! r = [-2 7];

%!test  # dispatch
%! expect_error ("The first input must be a string describing the functionality.", 1, d);
%! expect_error ("The first input must be a string describing the functionality.", {"filter"});
%! expect_error ("The first input must be a string describing the functionality.");

%!test  # filter: argument counts
%! expect_error ("There must be at least 5 inputs.", "filter", d, [], []);
%! expect_error ("There must be at least 5 inputs.", "filter");
%! expect_error ("Too many input arguments.", "filter", d, [], [], [], []);

%!test  # filter: data class before emptiness, emptiness by the first dimension only
%! expect_error ("Data must be of type single.", "filter", zeros (0, 3), [], [], []);
%! expect_error ("Data must be of type single.", "filter", int16 (d), [], [], []);
%! expect_error ("Data cannot be empty.", "filter", single (zeros (0, 3)), [], [], []);
%! low = homodyne ("filter", single (zeros (3, 0)), [], [], []);
%! assert (size (low), [3 0]);

%!test  # filter: range classes (absent ranges too), then complexity, then shapes
%! expect_error ("kx-range must be of type double.", "filter", d, single (r), [], []);
%! expect_error ("kx-range must be of type double.", "filter", d, single ([]), [], []);
%! expect_error ("ky-range must be of type double.", "filter", d, [], int32 (r), []);
%! expect_error ("kz-range must be of type double.", "filter", d, [], [], "ab");
%! expect_error ("kz-range must be of type double.", "filter", d, [1i 2], [], {});
%! expect_error ("kx-range must be real valued.", "filter", d, [1i 2], [], []);
%! expect_error ("kx-range must be real valued.", "filter", d, complex ([]), [], []);
%! expect_error ("ky-range must be real valued.", "filter", d, ones (2), [1i 2], []);
%! expect_error ("kz-range must be real valued.", "filter", d, [], [], complex ([1 2]));

%!test  # filter: shape messages of each range
%! bad = {ones(1, 2, 2), "The %s-range must be 1 dimensional vector.";
%!        ones(2, 2),    "The %s-range coordinates must be 1 dimensional vector.";
%!        ones(3, 2),    "The %s-range coordinates must be 1 dimensional vector.";
%!        [1 2 3],       "The %s-range must be of length 2.";
%!        [1; 2; 3],     "The %s-range must be of length 2.";
%!        zeros(1, 0),   "The %s-range must be of length 2."};
%! names = {"kx", "ky", "kz"};
%! for axis = 1:3
%!   for b = 1:rows (bad)
%!     ranges = {[], [], []};
%!     ranges{axis} = bad{b, 1};
%!     expect_error (sprintf (bad{b, 2}, names{axis}), "filter", d, ranges{:});
%!   end
%! end

%!test  # filter: all complexity checks before any shape check, kx before ky before kz
%! expect_error ("kz-range must be real valued.", "filter", d, ones (2), [], [1i 2]);
%! expect_error ("The ky-range must be of length 2.", "filter", d, r', [1 2 3], ones (2));
%! expect_error ("The kx-range must be of length 2.", "filter", d, [1 2 3], ones (2), []);

%!test  # filter: accepted range shapes, absent 0-by-n ranges
%! for good = {r, r', zeros(0, 2), zeros(0, 0), sparse(r)}
%!   homodyne ("filter", single (ones (16, 8)), [], good{1}, []);
%! end

%!test  # multiply: argument counts, then low-resolution emptiness before anything about data
%! expect_error ("There must be at least 3 inputs.", "multiply", d);
%! expect_error ("Too many input arguments.", "multiply", d, d, d);
%! expect_error ("The low resolution data cannot be empty.", "multiply", zeros (3), zeros (0, 2));
%! expect_error ("Data must be of type single.", "multiply", double (d), zeros (2));
%! expect_error ("Data cannot be empty.", "multiply", single (zeros (0, 2)), zeros (2));
%! expect_error ("LowRes must be of type single.", "multiply", d, double (d));
%! expect_error ("The data must have the same number of dimensions than the low resolution data",
%!               "multiply", single (ones (4, 4, 1, 2)), single (ones (4, 4, 3)));

%!test  # multiply: a smaller low-resolution image must hold one volume per data volume
%! text = "The low resolution data must have no empty dimension and the data's sizes from the fourth dimension on.";
%! expect_error (text, "multiply", single (ones (4, 4, 1, 3)), single (ones (2, 2, 1, 2)));
%! expect_error (text, "multiply", single (ones (4, 4)), single (ones (2, 0)));
%! img = homodyne ("multiply", single (ones (4, 4, 1, 3)), single (ones (2, 2, 1, 3)));
%! assert (img, single (ones (4, 4, 1, 3)));

%!test  # failed calls leave the data as it was
%! x = single (1:16)';
%! try
%!   homodyne ("filter", x, [-2 7], [1 2 3], []);
%! end_try_catch
%! try
%!   homodyne ("multiply", x, double (x));
%! end_try_catch
%! assert (x, single (1:16)');
