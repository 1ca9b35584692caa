% Calls that once ended or stalled the host, or lost their message: each dangerous case runs in
% its own Octave process, under an address-space limit where it needs one, and must print the
% right message and leave the process standing. Plus the refusals that are safe in this process:
% values beyond single precision, the SENSE aliasing bound.

%!function [out, ran] = in_child(code, limitGiB)
%!  % Runs code in a new octave-cli with this mrkit on its path and returns what it printed;
%!  % the process must end normally. limitGiB > 0 sets ulimit -v; ran is false when that cannot
%!  % be done (AddressSanitizer reserves more address space than any limit leaves).
%!  out = "";
%!  ran = limitGiB == 0 || isempty(strfind(getenv("LD_PRELOAD"), "asan"));
%!  if ! ran
%!    return;
%!  end
%!  script = [tempname() ".m"];
%!  fid = fopen(script, "w");
%!  fprintf(fid, "addpath('%s');\ntry\n  %s\n  printf('no error\\n');\ncatch err\n  printf('%%s\\n', err.message);\nend\n", ...
%!          fileparts(which("mrkit")), code);
%!  fclose(fid);
%!  cmd = sprintf("'%s' --norc --quiet --no-window-system --no-history '%s' 2>/dev/null", ...
%!                fullfile(OCTAVE_HOME(), "bin", "octave-cli"), script);
%!  if limitGiB > 0
%!    cmd = sprintf("ulimit -v %d; %s", round(limitGiB * 2^20), cmd);
%!  end
%!  [status, out] = system(cmd);
%!  delete(script);
%!  if status != 0
%!    error("the process did not survive (status %d): %s\n%s", status, code, out);
%!  end
%!  out = strtrim(out);
%!endfunction

%!function expect_child(message, code, limitGiB)
%!  [out, ran] = in_child(code, limitGiB);
%!  if ran
%!    assert(out, message);
%!  end
%!endfunction

%!test
%! % A size argument of 2^28 elements is refused on its count, never converted (2 GB as
%! % doubles would not fit the limit).
%! expect_child("mrkit:ifftshift: dim must have 1 element", ...
%!              "mrkit('ifftshift', single(1:4), zeros(2^28, 1, 'int8'));", 2);
%! expect_child("mrkit:zeropad: newSize must have 2 to 3 elements", ...
%!              "mrkit('zeropad', single(1:4), ones(2^28, 1, 'uint8'));", 2);

%!test
%! % Outputs beyond the memory there is: the command and the size in the message.
%! expect_child("mrkit:zeropad: not enough memory for a 46340 x 46340 complex output (16 GB)", ...
%!              "mrkit('zeropad', complex(single(1), single(1)), [46340 46340]);", 2);
%! expect_child("mrkit:sos: not enough memory for a 46340 x 46340 real output (8.0 GB)", ...
%!              "mrkit('sos', zeros(46340, 46340, 0, 'single'), 3);", 2);

%!test
%! % Arrays without elements but with one huge dimension.
%! expect_child("no error", "assert(size(mrkit('fftshift', zeros(2^31 - 1, 0, 'single'), 1)), [2^31 - 1, 0]);", 2);
%! expect_child("no error", "assert(size(mrkit('ringing', zeros(2^28, 0, 'single'), 0.5, 4)), [2^28, 0]);", 2);

%!test
%! % More aliased positions per voxel than SENSE can unfold: refused at once.
%! f = "complex(ones(8, 1, 1, 3, 'single'))";
%! s = "complex(ones(8, 8, 1, 3, 'single'))";
%! for n = [100000 1000]
%!   expect_child(sprintf("mrkit:sense: fullSize aliases %d positions onto each folded voxel; without regularization at most one per coil (3) can be unfolded", n), ...
%!                sprintf("mrkit('sense', %s, %s, [8 %d]);", f, s, n), 0);
%! end

%!test
%! % The aliasing bound: the coil count without regularisation, max(coils, 64) with it.
%! f = complex(single(rand(4, 2, 1, 3)), single(rand(4, 2, 1, 3)));
%! s = complex(single(rand(4, 7, 1, 3)), single(rand(4, 7, 1, 3)));
%! [img, status] = mrkit("sense", f, s, [4 6]);  % R = 3: three positions, three coils
%! assert(status, 1);
%! assert(all(isfinite(img(:))));
%! mrkit_expect_error("mrkit:sense: fullSize aliases 4 positions onto each folded voxel; without regularization at most one per coil (3) can be unfolded", ...
%!              "sense", f, s, [4 7]);
%! prior = {"reference", abs(s(:, :, 1, 1)), "regularization", abs(s(:, :, 1, 1))};
%! [img, status] = mrkit("sense", f, s, [4 7], prior{:});  % R = 3.5, regularised
%! assert(status, 1);
%! assert(all(isfinite(img(:))));
%! g = f(:, 1, :, :);
%! r = ones(4, 7, "single");
%! assert(size(mrkit("sense", g, s, [4 64], "reference", r, "regularization", r)), [4 64]);
%! mrkit_expect_error("mrkit:sense: fullSize aliases 65 positions onto each folded voxel; regularized unfolding takes at most 64", ...
%!              "sense", g, s, [4 65], "reference", r, "regularization", r);

%!test
%! % Values finite as double but not as single, where the library computes in single.
%! x = single([0.1 -0.2]);
%! sinc = zeros(14, 12);
%! sinc(2, 2) = 1;
%! zc = zeros(17, 1);
%! zc(2) = 1;
%! range = " must be at most 3.4e38 in magnitude (single precision)";
%! mrkit_expect_error(["mrkit:gradwarp: r0" range], "gradwarp", x, x, x, sinc, sinc, zc, 1e39);
%! mrkit_expect_error(["mrkit:gradwarp: r0" range], "gradwarp", x, x, x, sinc, sinc, zc, -1e39);
%! big = sinc;
%! big(5, 3) = 1e39;
%! mrkit_expect_error(["mrkit:gradwarp: coefCos" range], "gradwarp", x, x, x, sinc, big, zc, 1);
%! zc(17) = -1e39;
%! mrkit_expect_error(["mrkit:gradwarp: coefZ" range], "gradwarp", x, x, x, sinc, sinc, zc, 1);
%! % The largest single is still taken.
%! [a, b, c] = mrkit("gradwarp", x, x, x, sinc, sinc, zc * 0 + [0; 1; zeros(15, 1)], double(realmax("single")));
%! assert(all(isfinite([a b c])));

%!test
%! % The benchmark's timing command takes no arguments.
%! mrkit_expect_error("mrkit:-spans: wrong number of inputs; usage: t = mrkit('-spans')", "-spans", 1);
%! try
%!   [a, b] = mrkit("-spans");
%!   error("no error");
%! catch err
%!   assert(err.message, "mrkit:-spans: too many outputs; usage: t = mrkit('-spans')");
%! end
