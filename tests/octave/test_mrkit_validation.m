% Every argument check of mrkit.mex: the exact message and identifier, no output assigned and
% the arguments unchanged (mrkit_expect_error). Plus the command list of the help text and of the unknown-command
% error.

%!function varargout = gradwarp_args()
%!  x = single([0.1 -0.2]);
%!  sinc = zeros(14, 12);
%!  sinc(2, 2) = 1;
%!  cosc = sinc;
%!  zc = zeros(17, 1);
%!  zc(2) = 1;
%!  varargout = {x, x, x, sinc, cosc, zc, 0.25};
%!endfunction

%!shared valid
%! valid = "valid commands: sense, coilmaps, noisecov, sos, pcsos, fftshift, ifftshift, zeropad, ringing, gradwarp, unwarp, gradfile";

%!test
%! % The command string.
%! mrkit_expect_error(["mrkit: the first input must be a command string; " valid]);
%! mrkit_expect_error(["mrkit: the first input must be a command string; " valid], 3);
%! mrkit_expect_error(["mrkit: unknown command 'foo'; " valid], "foo", single(1));
%! mrkit_expect_error(["mrkit: unknown command 'FFTSHIFT'; " valid], "FFTSHIFT", single(1), 1);
%! mrkit_expect_error(["mrkit: unknown command ''; " valid], "");

%!test
%! % Every command named in the unknown-command error has a help entry with an example.
%! [~, list] = strtok(valid, ":");
%! commands = strtrim(strsplit(list(2:end), ","));
%! assert(numel(commands), 12);
%! % Octave shows a MEX file's help from the .m file beside it, as installed.
%! dir = tempname();
%! mkdir(dir);
%! unwind_protect
%!   copyfile(which("mrkit"), dir);
%!   copyfile(file_in_loadpath("mrkit.m"), dir);
%!   addpath(dir);
%!   text = evalc("help mrkit");
%! unwind_protect_cleanup
%!   rmpath(dir);
%!   confirm_recursive_rmdir(false, "local");
%!   rmdir(dir, "s");
%! end_unwind_protect
%! for k = 1:numel(commands)
%!   assert(! isempty(regexp(text, ["\\n\\s+" commands{k} "\\s"], "once")), commands{k});
%!   assert(! isempty(strfind(text, ["mrkit('" commands{k} "'"])), commands{k});
%! end

%!test
%! % Counts of inputs and outputs.
%! x = single(1:4);
%! mrkit_expect_error("mrkit:fftshift: wrong number of inputs; usage: y = mrkit('fftshift', x, dim)", "fftshift", x);
%! mrkit_expect_error("mrkit:ifftshift: wrong number of inputs; usage: y = mrkit('ifftshift', x, dim)", "ifftshift", x, 1, 2);
%! mrkit_expect_error("mrkit:zeropad: wrong number of inputs; usage: y = mrkit('zeropad', x, newSize)", "zeropad", x);
%! mrkit_expect_error("mrkit:ringing: wrong number of inputs; usage: y = mrkit('ringing', x, strength, width)", "ringing", x, 0);
%! mrkit_expect_error("mrkit:sos: wrong number of inputs; usage: y = mrkit('sos', x, coilDim)", "sos");
%! mrkit_expect_error("mrkit:pcsos: wrong number of inputs; usage: y = mrkit('pcsos', x, coilDim)", "pcsos", x, 1, 1);
%! mrkit_expect_error("mrkit:gradwarp: wrong number of inputs; usage: [xo, yo, zo] = mrkit('gradwarp', x, y, z, coefSin, coefCos, coefZ, r0)", "gradwarp", x, x, x);
%! mrkit_expect_error("mrkit:sense: wrong number of inputs; usage: [img, status, info] = mrkit('sense', folded, sens, fullSize, Name, Value...)", "sense", x, x);
%! try
%!   [a, b] = mrkit("sos", x, 1);
%!   error("no error");
%! catch err
%!   assert(err.message, "mrkit:sos: too many outputs; usage: y = mrkit('sos', x, coilDim)");
%! end
%! try
%!   [a, b, c, d] = mrkit("sense", x, x, [1 4]);
%!   error("no error");
%! catch err
%!   assert(err.message, "mrkit:sense: too many outputs; usage: [img, status, info] = mrkit('sense', folded, sens, fullSize, Name, Value...)");
%! end

%!test
%! % Data arrays: class, complexity, size limits; numeric parameters: class, count, range.
%! x = single(ones(4, 3));
%! mrkit_expect_error("mrkit:fftshift: x must be single", "fftshift", ones(4), 1);
%! mrkit_expect_error("mrkit:sos: x must be single", "sos", int16(ones(4)), 1);
%! mrkit_expect_error("mrkit:pcsos: x must be single", "pcsos", true(4), 1);
%! % 2^32 elements if zeros counted as ones: no data, but sizes past 32-bit indices.
%! mrkit_expect_error("mrkit:ringing: x is too large for 32-bit indices", "ringing", zeros(0, 2^16, 2^16, "single"), 0, 1);
%! mrkit_expect_error("mrkit:fftshift: x is too large for 32-bit indices", "fftshift", zeros(2^31, 0, "single"), 1);
%! for dim = {0, 4, 1.5, -1}
%!   mrkit_expect_error("mrkit:fftshift: dim must be an integer from 1 to 3", "fftshift", x, dim{1});
%! end
%! mrkit_expect_error("mrkit:ifftshift: dim must have 1 element", "ifftshift", x, [1 2]);
%! mrkit_expect_error("mrkit:ifftshift: dim must have 1 element", "ifftshift", x, []);
%! mrkit_expect_error("mrkit:fftshift: dim must be finite", "fftshift", x, NaN);
%! mrkit_expect_error("mrkit:fftshift: dim must be real and numeric", "fftshift", x, "1");
%! mrkit_expect_error("mrkit:fftshift: dim must be real and numeric", "fftshift", x, 1 + 1i);
%! mrkit_expect_error("mrkit:fftshift: dim must be real and numeric", "fftshift", x, sparse(1));
%! mrkit_expect_error("mrkit:sos: coilDim must be an integer from 1 to 2", "sos", x, 3);
%! mrkit_expect_error("mrkit:sos: coilDim must be an integer from 1 to 3", "sos", ones(2, 2, 2, "single"), 0);
%! mrkit_expect_error("mrkit:pcsos: coilDim must be an integer from 1 to 2", "pcsos", x, 3);
%! mrkit_expect_error("mrkit:pcsos: coilDim must not be 10, the dimension pcsos averages along", "pcsos", ones([1 1 1 1 1 1 1 1 1 2], "single"), 10);
%! assert(mrkit("sos", x, int8(2)), single(sqrt(3) * ones(4, 1)));  % any numeric class

%!test
%! % Zero padding and ringing parameters.
%! x = single(ones(4, 3, 2));
%! mrkit_expect_error("mrkit:zeropad: newSize must have 2 to 3 elements", "zeropad", x, 4);
%! mrkit_expect_error("mrkit:zeropad: newSize must have 2 to 3 elements", "zeropad", x, [4 4 4 4]);
%! mrkit_expect_error("mrkit:zeropad: newSize must hold integers from 0 to 2147483647", "zeropad", x, [4.5 4]);
%! mrkit_expect_error("mrkit:zeropad: newSize must hold integers from 0 to 2147483647", "zeropad", x, [4 2^31]);
%! mrkit_expect_error("mrkit:zeropad: newSize must be finite", "zeropad", x, [4 Inf]);
%! mrkit_expect_error("mrkit:zeropad: newSize(1) must not be smaller than size(x, 1) (4)", "zeropad", x, [3 4]);
%! mrkit_expect_error("mrkit:zeropad: newSize(2) must not be smaller than size(x, 2) (3)", "zeropad", x, [4 2]);
%! mrkit_expect_error("mrkit:zeropad: newSize(3) must not be smaller than size(x, 3) (2)", "zeropad", x, [4 3 1]);
%! mrkit_expect_error("mrkit:zeropad: newSize is too large for 32-bit indices", "zeropad", single(1), [2^16 2^16]);
%! mrkit_expect_error("mrkit:zeropad: newSize is too large for 32-bit indices", "zeropad", ones(1, 1, 1, 2, "single"), [2^15 2^15]);
%! mrkit_expect_error("mrkit:ringing: strength must have 1 to 3 elements", "ringing", x, [0 0 0 0], 4);
%! mrkit_expect_error("mrkit:ringing: strength must be finite", "ringing", x, [0 NaN], 4);
%! mrkit_expect_error("mrkit:ringing: width must have 1 to 3 elements", "ringing", x, 0, []);
%! mrkit_expect_error("mrkit:ringing: width must hold integers from 1 to 2147483647", "ringing", x, 0, [4 0]);
%! mrkit_expect_error("mrkit:ringing: width must be finite", "ringing", x, 0, -Inf);

%!test
%! % Geometry: points, coefficient shapes, linear terms and the reference radius.
%! [x, y, z, sinc, cosc, zc, r0] = gradwarp_args();
%! mrkit_expect_error("mrkit:gradwarp: x must be single", "gradwarp", double(x), y, z, sinc, cosc, zc, r0);
%! mrkit_expect_error("mrkit:gradwarp: y must be real", "gradwarp", x, complex(y), z, sinc, cosc, zc, r0);
%! mrkit_expect_error("mrkit:gradwarp: z must have the size of x", "gradwarp", x, y, z.', sinc, cosc, zc, r0);
%! mrkit_expect_error("mrkit:gradwarp: y must have the size of x", "gradwarp", x, [y 0], z, sinc, cosc, zc, r0);
%! p = single(linspace(-0.5, 0.5, 37));  % the check runs in vector steps and a scalar tail
%! for bad = {NaN, Inf, -Inf}
%!   for at = [1 18 37]
%!     q = p;
%!     q(at) = bad{1};
%!     mrkit_expect_error("mrkit:gradwarp: z must be finite", "gradwarp", p, p, q, sinc, cosc, zc, r0);
%!   end
%! end
%! mrkit_expect_error("mrkit:gradwarp: coefSin must be 14x12 (degrees 0 to 13 by orders 0 to 11)", "gradwarp", x, y, z, sinc.', cosc, zc, r0);
%! mrkit_expect_error("mrkit:gradwarp: coefCos must be 14x12 (degrees 0 to 13 by orders 0 to 11)", "gradwarp", x, y, z, sinc, cosc(1:13, :), zc, r0);
%! mrkit_expect_error("mrkit:gradwarp: coefCos must be 14x12 (degrees 0 to 13 by orders 0 to 11)", "gradwarp", x, y, z, sinc, cosc(:), zc, r0);
%! mrkit_expect_error("mrkit:gradwarp: coefZ must be a vector of 17 elements (degrees 0 to 16)", "gradwarp", x, y, z, sinc, cosc, zc(1:16), r0);
%! mrkit_expect_error("mrkit:gradwarp: coefZ must be a vector of 17 elements (degrees 0 to 16)", "gradwarp", x, y, z, sinc, cosc, [zc zc], r0);
%! mrkit_expect_error("mrkit:gradwarp: coefSin must be real and numeric", "gradwarp", x, y, z, complex(sinc), cosc, zc, r0);
%! bad = cosc;
%! bad(5, 3) = NaN;
%! mrkit_expect_error("mrkit:gradwarp: coefCos must be finite", "gradwarp", x, y, z, sinc, bad, zc, r0);
%! mrkit_expect_error("mrkit:gradwarp: coefSin(2,2) must be non-zero", "gradwarp", x, y, z, 0 * sinc, cosc, zc, r0);
%! mrkit_expect_error("mrkit:gradwarp: coefCos(2,2) must be non-zero", "gradwarp", x, y, z, sinc, 0 * cosc, zc, r0);
%! mrkit_expect_error("mrkit:gradwarp: coefZ(2) must be non-zero", "gradwarp", x, y, z, sinc, cosc, 0 * zc, r0);
%! mrkit_expect_error("mrkit:gradwarp: r0 must be positive", "gradwarp", x, y, z, sinc, cosc, zc, 0);
%! mrkit_expect_error("mrkit:gradwarp: r0 must be positive", "gradwarp", x, y, z, sinc, cosc, zc, 1e-50);
%! mrkit_expect_error("mrkit:gradwarp: r0 must be finite", "gradwarp", x, y, z, sinc, cosc, zc, Inf);
%! mrkit_expect_error("mrkit:gradwarp: r0 must have 1 element", "gradwarp", x, y, z, sinc, cosc, zc, [1 2]);
%! % A row vector of zonal terms and single coefficients are as good as the double column.
%! [a, b, c] = mrkit("gradwarp", x, y, z, single(sinc), cosc, zc.', r0);
%! assert([a; b; c], [x; y; z], 1e-4);  % table sampled 2/9999 apart in cos(theta)

%!test
%! % SENSE: data and maps, their agreement, the full size and the options.
%! f = complex(ones(4, 2, 1, 3, "single"));
%! s = complex(ones(4, 4, 1, 3, "single"));
%! n = [4 4];
%! mrkit_expect_error("mrkit:sense: folded must be single", "sense", double(f), s, n);
%! mrkit_expect_error("mrkit:sense: sensitivities must be single", "sense", f, double(s), n);
%! mrkit_expect_error("mrkit:sense: folded must have at most 13 dimensions", "sense", ones([4 2 ones(1, 11) 2], "single"), s, n);
%! mrkit_expect_error("mrkit:sense: sensitivities must have at most 5 dimensions", "sense", f, ones([4 4 1 3 1 2], "single"), n);
%! mrkit_expect_error("mrkit:sense: folded must not be empty", "sense", zeros(4, 0, "single"), s, n);
%! mrkit_expect_error("mrkit:sense: sensitivities must not be empty", "sense", f, zeros(4, 0, 1, 3, "single"), n);
%! mrkit_expect_error("mrkit:sense: sensitivities must have as many coils as folded (3) in dimension 4", "sense", f, s(:, :, :, 1:2), n);
%! mrkit_expect_error("mrkit:sense: sensitivities must have as many sets as size(folded, 8) (1) in dimension 5", "sense", f, cat(5, s, s), n);
%! mrkit_expect_error("mrkit:sense: sensitivities must have as many sets as size(folded, 8) (2) in dimension 5", "sense", cat(8, f, f), s, n);
%! mrkit_expect_error("mrkit:sense: fullSize must have 2 to 3 elements", "sense", f, s, 4);
%! mrkit_expect_error("mrkit:sense: fullSize must hold integers from 1 to 2147483647", "sense", f, s, [4 0]);
%! mrkit_expect_error("mrkit:sense: fullSize(1) must equal size(folded, 1) (4): x is never folded", "sense", f, s, [8 4]);
%! mrkit_expect_error("mrkit:sense: fullSize(2) must not be smaller than size(folded, 2) (2)", "sense", f, s, [4 1]);
%! mrkit_expect_error("mrkit:sense: fullSize(3) must not be smaller than size(folded, 3) (2)", "sense", cat(3, f, f), s, [4 4 1]);
%! mrkit_expect_error("mrkit:sense: fullSize is too large for 32-bit indices", "sense", f, s, [4 2^30]);
%! mrkit_expect_error("mrkit:sense: sensitivities are too large for 32-bit indices at this reduction factor", "sense", ones(1, 1, 1, 4, "single"), ones(1, 1, 1, 4, "single"), [1 2^30]);
%! mrkit_expect_error("mrkit:sense: options must come in name-value pairs", "sense", f, s, n, "noise");
%! mrkit_expect_error("mrkit:sense: option names must be strings", "sense", f, s, n, 1, 2);
%! mrkit_expect_error("mrkit:sense: unknown option 'nois'; valid options: noise, reference, regularization, regScale, validity", "sense", f, s, n, "nois", 1);
%! mrkit_expect_error("mrkit:sense: noise must be single", "sense", f, s, n, "noise", eye(3));
%! mrkit_expect_error("mrkit:sense: noise must be a coils x coils matrix (3x3)", "sense", f, s, n, "noise", eye(2, "single"));
%! mrkit_expect_error("mrkit:sense: noise must have at most 2 dimensions", "sense", f, s, n, "noise", ones(3, 3, 2, "single"));
%! mrkit_expect_error("mrkit:sense: regScale must be positive", "sense", f, s, n, "regScale", 0);
%! mrkit_expect_error("mrkit:sense: regScale must be finite", "sense", f, s, n, "regScale", NaN);
%! r = ones(4, 4, "single");
%! mrkit_expect_error("mrkit:sense: reference and regularization must be given together", "sense", f, s, n, "reference", r);
%! mrkit_expect_error("mrkit:sense: reference and regularization must be given together", "sense", f, s, n, "regularization", r);
%! mrkit_expect_error("mrkit:sense: reference must be single", "sense", f, s, n, "reference", double(r), "regularization", r);
%! mrkit_expect_error("mrkit:sense: reference must not be empty", "sense", f, s, n, "reference", zeros(0, 4, "single"), "regularization", r);
%! mrkit_expect_error("mrkit:sense: regularization must hold one map of the sensitivities' x-y-z size per set (4x4x1x1)", "sense", f, s, n, "reference", r, "regularization", r(:, 1:3));
%! mrkit_expect_error("mrkit:sense: regularization must hold one map of the sensitivities' x-y-z size per set (4x4x1x1)", "sense", f, s, n, "reference", r, "regularization", cat(4, r, r));
%! % Option names ignore case.
%! assert(size(mrkit("sense", f, s, n, "NOISE", eye(3, "single"), "RegScale", 2)), [4 4]);
