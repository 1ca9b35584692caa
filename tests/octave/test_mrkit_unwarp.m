% mrkit('unwarp', ...) against the scanner model with positions from mrkit('gradwarp', ...),
% its options and argument checks, and mrkit('gradfile', ...) on files written here.

%!function v = blobs(x, y, z)
%!  v = exp(-((x - 110).^2 + (y + 70).^2 + (z - 50).^2) / (2 * 25^2)) + ...
%!      0.7 * exp(-((x + 100).^2 + (y - 90).^2 + (z + 60).^2) / (2 * 25^2));
%!endfunction

%!shared r0, sc, cc, cz, A, n, x, y, z
%! r0 = 250;
%! [sc, cc] = deal(zeros(14, 12));
%! cz = zeros(17, 1);
%! cc(2, 2) = 1;  cc(4, 2) = -0.06;  cc(6, 2) = 0.015;
%! sc(2, 2) = 1;  sc(4, 2) = -0.05;  sc(4, 4) = -0.008;
%! cz(2) = 1;     cz(4) = -0.07;     cz(6) = 0.02;
%! n = [40 36 32];
%! h = [10 11 12];
%! A = [diag(h) (-(n - 1) .* h / 2).'; 0 0 0 1];
%! [i, j, k] = ndgrid(0:n(1) - 1, 0:n(2) - 1, 0:n(3) - 1);
%! x = single(A(1, 1) * i + A(1, 4));
%! y = single(A(2, 2) * j + A(2, 4));
%! z = single(A(3, 3) * k + A(3, 4));

%!test
%! % The distorted image shows the object at the encoded position of each voxel; unwarped, the
%! % voxel at p shows it at gradwarp(p), within the trilinear interpolation's error.
%! vol = single(blobs(x, y, z));
%! before = vol;
%! [img, d] = mrkit("unwarp", vol, A, sc, cc, cz, r0, "jacobian", false);
%! assert(isequal(vol, before));
%! assert(class(img), "single");
%! assert(size(img), size(vol));
%! assert(size(d), [n 3]);
%! [xe, ye, ze] = mrkit("gradwarp", x, y, z, sc, cc, cz, r0);
%! inner = sqrt(x.^2 + y.^2 + z.^2) < 170;
%! want = blobs(xe, ye, ze);
%! assert(max(abs(img(inner) - want(inner))), 0, 0.04);
%! assert(max(abs(want(inner) - vol(inner))) > 0.05);     % the correction matters
%! moved = cat(4, xe - x, ye - y, ze - z);
%! assert(max(abs(d(:) - moved(:))), 0, 0.1);              % mm, as the series says
%! % Catmull-Rom is closer; the Jacobian (default) scales by the volume change.
%! cubic = mrkit("unwarp", vol, A, sc, cc, cz, r0, "jacobian", 0, "interp", "cubic");
%! assert(max(abs(cubic(inner) - want(inner))) < max(abs(img(inner) - want(inner))) / 2);
%! scaled = mrkit("unwarp", vol, A, sc, cc, cz, r0);
%! ratio = scaled(inner & want > 0.3) ./ img(inner & want > 0.3);
%! assert(max(abs(ratio - 1)) > 0.1);

%!test
%! % Warp then unwarp gives the image back; complex data and further dimensions share the
%! % positions, single and double coefficients alike.
%! truth = single(blobs(x, y, z));
%! vol = complex(truth, -truth);
%! vol = cat(4, vol, 2 * vol);
%! w = mrkit("unwarp", vol, A, sc, cc, cz, r0, "Direction", "WARP");
%! assert(iscomplex(w));
%! assert(size(w), [n 2]);
%! back = mrkit("unwarp", w, A, single(sc), single(cc), single(cz.'), single(r0));
%! inner = sqrt(x.^2 + y.^2 + z.^2) < 170;
%! for v = 1:2
%!   re = real(back(:, :, :, v));
%!   im = imag(back(:, :, :, v));
%!   assert(max(abs(re(inner) - v * truth(inner))), 0, 0.1 * v);
%!   assert(isequal(re, -im));
%! end
%! one = mrkit("unwarp", real(vol(:, :, :, 2)), A, sc, cc, cz, r0, "direction", "warp");
%! assert(isequal(one, real(w(:, :, :, 2))));

%!test
%! % Linear terms only: nothing moves, also on a permuted, flipped grid; a 2-D image is one
%! % plane at z = 0 of its affine.
%! lin = zeros(14, 12);
%! lin(2, 2) = 1.3;
%! linz = zeros(17, 1);
%! linz(2) = 0.7;
%! rand("seed", 1);
%! vol = single(rand(n));
%! B = A(:, [3 1 2 4]);
%! B(:, 1) = -B(:, 1);
%! img = mrkit("unwarp", vol, B, lin, lin, linz, r0, "interp", "cubic");
%! assert(img, vol, 3e-4);
%! img = mrkit("unwarp", vol(:, :, 1), A, lin, lin, linz, r0);
%! assert(img, vol(:, :, 1), 3e-4);

%!test
%! % Argument checks of unwarp's own, each with its message (the option reader and the
%! % coefficient checks it shares with sense, coilmaps and gradwarp are test_mrkit_validation's).
%! v = single(ones(4, 4, 4));
%! mrkit_expect_error("mrkit:unwarp: vol must be single", "unwarp", double(v), A, sc, cc, cz, r0);
%! mrkit_expect_error("mrkit:unwarp: affine must be a 4x4 matrix", "unwarp", v, A(1:3, :), sc, cc, cz, r0);
%! mrkit_expect_error("mrkit:unwarp: affine must be real and numeric", "unwarp", v, "abcd", sc, cc, cz, r0);
%! B = A;
%! B(2, 3) = Inf;
%! mrkit_expect_error("mrkit:unwarp: affine must be finite", "unwarp", v, B, sc, cc, cz, r0);
%! mrkit_expect_error("mrkit:unwarp: affine must have [0 0 0 1] as its last row", "unwarp", v, [A(1:3, :); 0 0 1 1], sc, cc, cz, r0);
%! mrkit_expect_error("mrkit:unwarp: affine must be invertible: its columns 1-3 are (nearly) dependent", ...
%!              "unwarp", v, [A(:, 1) A(:, 1) A(:, 3:4)], sc, cc, cz, r0);
%! mrkit_expect_error("mrkit:unwarp: coefSin must be 14x12 (degrees 0 to 13 by orders 0 to 11)", "unwarp", v, A, sc.', cc, cz, r0);
%! mrkit_expect_error("mrkit:unwarp: unknown option 'order'; valid options: jacobian, interp, direction", ...
%!              "unwarp", v, A, sc, cc, cz, r0, "order", 3);
%! mrkit_expect_error("mrkit:unwarp: jacobian must be true or false", "unwarp", v, A, sc, cc, cz, r0, "jacobian", 2);
%! mrkit_expect_error("mrkit:unwarp: jacobian must be true or false", "unwarp", v, A, sc, cc, cz, r0, "jacobian", "on");
%! mrkit_expect_error("mrkit:unwarp: jacobian must be true or false", "unwarp", v, A, sc, cc, cz, r0, "jacobian", [true true]);
%! mrkit_expect_error("mrkit:unwarp: interp must be 'linear' or 'cubic'", "unwarp", v, A, sc, cc, cz, r0, "interp", "nearest");
%! mrkit_expect_error("mrkit:unwarp: direction must be 'unwarp' or 'warp'", "unwarp", v, A, sc, cc, cz, r0, "direction", 1);
%! try
%!   [a, b, c] = mrkit("unwarp", v, A, sc, cc, cz, r0);
%!   error("no error");
%! catch err
%!   assert(err.message, "mrkit:unwarp: too many outputs; usage: [img, displacement] = mrkit('unwarp', vol, affine, coefSin, coefCos, coefZ, r0, Name, Value...)");
%! end
%! % Empty volumes give empty results.
%! e = zeros(0, 3, 2, "single");
%! [img, d] = mrkit("unwarp", e, A, sc, cc, cz, r0);
%! assert(size(img), [0 3 2]);
%! assert(size(d), [0 3 2 3]);

%!test
%! % Coefficient files: terms of both letters on all three axes, comments, a header setting;
%! % terms without a place in the series are listed (or warned about when not asked for).
%! file = [tempname() ".coef"];
%! fid = fopen(file, "w");
%! fprintf(fid, "#*] test coil\n win_low = 0\n 0.25 m = R0\n");
%! fprintf(fid, "  1 A( 1, 1)  0.98  x\n  2 A( 3, 1) -0.06 x  # third degree\n  3 B( 3, 1) 0.002 x\n");
%! fprintf(fid, "  4 B( 1, 1)  1.02  y\n  5 B( 5, 3) -0.007 y\n  6 A( 1, 0) 1.01 z\n  7 A(16, 0) 0.0015 z\n");
%! fclose(fid);
%! unwind_protect
%!   [s, c, zc, r, dropped] = mrkit("gradfile", file);
%!   assert(size(s), [14 12]);
%!   assert(size(zc), [17 1]);
%!   assert(r, 0.25, 1e-7);
%!   assert([c(2, 2) c(4, 2) s(2, 2) s(6, 4) zc(2) zc(17)], [0.98 -0.06 1.02 -0.007 1.01 0.0015], 1e-7);
%!   assert(nnz(s) + nnz(c) + nnz(zc), 6);
%!   assert(dropped, {"B(3,1) x = 0.002 (line 6)"});
%!   lastwarn("");
%!   s1 = mrkit("gradfile", file);
%!   [msg, id] = lastwarn();
%!   assert(id, "mrkit:gradfile");
%!   assert(msg, "mrkit:gradfile: 1 non-zero terms have no place in the series and were dropped: B(3,1) x = 0.002 (line 6)");
%!   assert(isequal(s1, s));
%!   % The coefficients drive unwarp directly, with r0 in the unit of the affine.
%!   img = mrkit("unwarp", single(blobs(x, y, z)), A, s, c, zc, 1000 * r);
%!   assert(all(isfinite(img(:))));
%!   fid = fopen(file, "a");
%!   fprintf(fid, "  8 A( 3, x)  0.1  z\n");
%!   fclose(fid);
%!   mrkit_expect_error(["mrkit:gradfile: " file ", line 11: expected '<no> A( n, m) <value> <axis>' or '<r0> m = R0': '8 A( 3, x)  0.1  z'"], "gradfile", file);
%! unwind_protect_cleanup
%!   delete(file);
%! end_unwind_protect
%! mrkit_expect_error("mrkit:gradfile: path must be a string", "gradfile", 3);
%! try
%!   mrkit("gradfile", [file ".missing"]);
%!   error("no error");
%! catch err
%!   assert(strncmp(err.message, ["mrkit:gradfile: cannot open " file ".missing"], 30 + numel(file)));
%! end
