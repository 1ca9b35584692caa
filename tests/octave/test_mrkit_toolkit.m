% The toolkit commands of mrkit.mex against Octave's own functions; every call must leave its
% input as it was. Zero padding is checked against NumPy in test_toolkit.py, whose bits the
% cross-host test holds to these.

%!function x = random_single(sz, cplx)
%!  x = single(randn(sz));
%!  if cplx
%!    x = complex(x, single(randn(sz)));
%!  end
%!endfunction

%!function y = call_keeping_input(varargin)
%!  % mrkit(varargin{:}), asserting that the data argument is unchanged afterwards.
%!  before = double(varargin{2});  % a deep copy: shared storage would hide a write
%!  y = mrkit(varargin{:});
%!  assert(isequal(double(varargin{2}), before), "mrkit('%s') changed its input", varargin{1});
%!endfunction

%!test
%! % Shifts equal Octave's fftshift/ifftshift for even, odd and unit sizes, ranks 2 to 5,
%! % real and complex data, including dimension 3 of a 2-D array.
%! randn("state", 1);
%! shapes = {[4 5], [5 4 3], [3 1 4 2], [1 6 5 2 3], [7 1]};
%! for k = 1:numel(shapes)
%!   for cplx = [false true]
%!     x = random_single(shapes{k}, cplx);
%!     for dim = 1:3
%!       y = call_keeping_input("fftshift", x, dim);
%!       if dim > ndims(x)
%!         assert(isequal(y, x));  % Octave's fftshift rejects a dimension past the rank
%!         continue;
%!       end
%!       assert(isequal(y, fftshift(x, dim)));
%!       assert(class(y), "single");
%!       assert(iscomplex(y), cplx);
%!       z = call_keeping_input("ifftshift", y, dim);
%!       assert(isequal(z, ifftshift(y, dim)));
%!       assert(isequal(z, x));
%!     end
%!   end
%! end

%!test
%! % Ringing: entries missing from strength or width mean no taper over the full size; the
%! % window's values are the C++ tests'.
%! randn("state", 3);
%! for cplx = [false true]
%!   x = random_single([8 6 4 2], cplx);
%!   y = call_keeping_input("ringing", x, [0.5 0.2], 5);
%!   assert(isequal(y, mrkit("ringing", x, [0.5 0.2 0], [5 6 4])));
%!   assert(! isequal(y, x) && iscomplex(y) == cplx);
%! end

%!test
%! % Sum of squares: Octave's sqrt(sum(abs(x).^2, d)) to rounding, real and single, with the
%! % coils first, in the middle or last (the bits are the C++ tests').
%! randn("state", 4);
%! for cplx = [false true]
%!   x = random_single([5 4 3 6], cplx);
%!   for d = 1:4
%!     y = call_keeping_input("sos", x, d);
%!     assert(y, sqrt(sum(abs(x).^2, d)), -1e-6);
%!     assert(isreal(y) && isa(y, "single"));
%!   end
%! end

%!test
%! % Phase-corrected sum of squares: the sos magnitude, complex single, any coil dimension with
%! % averaging along dimension 10 (the phase's weights are the C++ tests').
%! randn("state", 5);
%! for cplx = [true false]
%!   x = random_single([4 3 2 5 1 1 2 1 1 3], cplx);
%!   for d = [1 4 7]
%!     y = call_keeping_input("pcsos", x, d);
%!     assert(size(y), size(sum(x, d)));
%!     assert(iscomplex(y) && isa(y, "single"));
%!     assert(abs(y), mrkit("sos", x, d), -1e-5);
%!   end
%! end

%!test
%! % Empty arrays pass through every toolkit command with the sizes Octave's own give.
%! x = zeros(0, 3, "single");
%! assert(size(mrkit("fftshift", x, 2)), [0 3]);
%! assert(size(mrkit("sos", x, 2)), [0 1]);
%! assert(size(mrkit("pcsos", x, 1)), [1 3]);
%! assert(size(mrkit("ringing", x, 0.5, [1 3])), [0 3]);
%! z = complex(x);  % complex input reaches the in-place commands as a duplicate
%! assert(size(mrkit("fftshift", z, 2)), [0 3]);
%! assert(size(mrkit("ringing", z, 0.5, [1 3])), [0 3]);
%! assert(size(mrkit("zeropad", x, [2 3])), [2 3]);
%! assert(all(mrkit("zeropad", x, [2 3])(:) == 0));

%!test
%! % The spans the benchmark reads: the library's time lies within the command's, which lies
%! % within the call.
%! x = complex(single(randn(64, 64, 8)), single(randn(64, 64, 8)));
%! tic;
%! mrkit("ringing", x, 0.5, 32);
%! t = 1e3 * toc;
%! s = mrkit("-spans");
%! assert(size(s), [1 2]);
%! assert(0 < s(1) && s(1) <= s(2) && s(2) <= t);
