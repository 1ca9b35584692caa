% mrkit('coilmaps', ...) and mrkit('noisecov', ...): maps from a fully sampled k-space centre
% against the maps that made the data, the covariance of correlated noise
% against the one that made it, and every argument check.

%!shared nx, ny, rho, sens, k
%! nx = 96;
%! ny = 90;
%! rho = mrkit_phantom([nx ny]);
%! sens = mrkit_coil_maps(nx, ny, 12);
%! k = 37 * mrkit_fftc(rho .* sens, 1:2);

%!test
%! % Up to a factor per voxel common to the coils the true maps, unit norm over the coils,
%! % masked around the object; unmasked with threshold 0. Lines outside the centre do not count.
%! sampled = k;
%! sampled(:, [1:30, 61:end], :, :) = 0;
%! S = mrkit("coilmaps", sampled, [nx 24]);
%! assert(size(S), size(sens));
%! assert(isa(S, "single") && iscomplex(S));
%! inside = rho > 0;
%! t = sens ./ sqrt(sum(abs(sens).^2, 4));
%! fit = abs(sum(conj(double(S)) .* double(t), 4)).^2;
%! assert(mean(1 - fit(inside)) < 1e-3);
%! assert(abs(sum(abs(S).^2, 4)(inside) - 1) < 1e-5);
%! assert(all(any(S != 0, 4)(inside)));
%! assert(nnz(all(S == 0, 4)) > 0.1 * nx * ny);
%! assert(isequal(S, mrkit("coilmaps", k, [nx 24])));
%! U = mrkit("coilmaps", k, [nx 24], "threshold", 0);
%! assert(all(any(U != 0, 4)(:)));
%! % 2-D defaults to the kernels (Walsh's method on request); how the two compare, and the maps
%! % through SENSE, are the C++ calibration tests'.
%! assert(isequal(S, mrkit("coilmaps", sampled, [nx 24], "method", "ESPIRiT", "kernel", 6)));
%! assert(! isequal(S, mrkit("coilmaps", sampled, [nx 24], "method", "walsh")));

%!test
%! % 3-D k-space, calibration block in y and z; real k-space is taken with a zero imaginary part.
%! n = [16 20 18];
%! vol = mrkit_phantom(n);
%! maps = repmat(mrkit_coil_maps(n(1), n(2), 6), [1 1 n(3) 1]);
%! kv = mrkit_fftc(vol .* maps, 1:3);
%! S = mrkit("coilmaps", kv, [16 12 12], "window", 3);
%! assert(size(S), [n 6]);
%! assert(abs(sum(abs(S).^2, 4)(vol > 0) - 1) < 1e-5);
%! assert(isequal(mrkit("coilmaps", real(kv), [16 12 12]), mrkit("coilmaps", complex(real(kv)), [16 12 12])));
%! % 3-D defaults to Walsh's method; the kernels on request.
%! assert(isequal(S, mrkit("coilmaps", kv, [16 12 12], "window", 3, "method", "walsh")));
%! E = mrkit("coilmaps", kv, [16 12 12], "method", "espirit", "kernel", [4 4 3]);
%! assert(abs(sum(abs(E).^2, 4)(vol > 0) - 1) < 1e-5);

%!test
%! % Correlated noise, coils along dimension 3 of an odd-sized array, any scale: each entry
%! % within five standard errors of the covariance that made it; Hermitian.
%! randn("state", 9);
%! nc = 16;
%! L = tril(complex(randn(nc), randn(nc))) / 3 + eye(nc);
%! w = complex(randn(37 * 29 * 3, nc), randn(37 * 29 * 3, nc)) / sqrt(2);
%! x = single(250 * reshape(permute(reshape(w * L.', [37 29 3 nc]), [1 2 4 3]), [37 29 nc 3]));
%! psi = mrkit("noisecov", x, 3);
%! truth = 250^2 * (L * L');
%! se = sqrt(real(diag(truth)) * real(diag(truth)).' / size(w, 1));
%! assert(size(psi), [nc nc]);
%! assert(all(abs(real(psi(:)) - real(truth(:))) < 5 * se(:)));
%! assert(all(abs(imag(psi(:)) - imag(truth(:))) < 5 * se(:)));
%! assert(isequal(psi, psi'));
%! % Real samples give a real-valued covariance; coils along the last dimension.
%! p = mrkit("noisecov", single([1 3 0; -1 3 0; 2 3 0; 0 3 0; 0 3 5]), 2);
%! assert(p, complex(single([6 6 0; 6 45 15; 0 15 25] / 5)), 1e-6);

%!test
%! % Every argument of the two commands, with the command and the argument in the message.
%! kk = single(ones(8, 6, 1, 3));
%! mrkit_expect_error("mrkit:coilmaps: kspace must be single", "coilmaps", double(kk), [8 4]);
%! mrkit_expect_error("mrkit:coilmaps: kspace must have at most 4 dimensions", "coilmaps", ones(2, 2, 2, 2, 2, "single"), [2 2]);
%! mrkit_expect_error("mrkit:coilmaps: kspace must not be empty", "coilmaps", zeros(0, 4, "single"), [1 1]);
%! mrkit_expect_error("mrkit:coilmaps: calibSize must have 2 to 3 elements", "coilmaps", kk, 4);
%! mrkit_expect_error("mrkit:coilmaps: calibSize must hold integers from 1 to 2147483647", "coilmaps", kk, [8 0]);
%! mrkit_expect_error("mrkit:coilmaps: calibSize must have 3 entries for 3-D k-space", "coilmaps", ones(4, 4, 4, 2, "single"), [4 4]);
%! mrkit_expect_error("mrkit:coilmaps: calibSize(2) must not exceed size(kspace, 2) (6)", "coilmaps", kk, [8 7]);
%! mrkit_expect_error("mrkit:coilmaps: unknown option 'treshold'; valid options: method, threshold, window, kernel", "coilmaps", kk, [8 4], "treshold", 0.1);
%! mrkit_expect_error("mrkit:coilmaps: method must be 'espirit' or 'walsh'", "coilmaps", kk, [8 4], "method", "sense");
%! mrkit_expect_error("mrkit:coilmaps: method must be 'espirit' or 'walsh'", "coilmaps", kk, [8 4], "method", 1);
%! mrkit_expect_error("mrkit:coilmaps: kernel must hold integers from 1 to 16", "coilmaps", kk, [8 4], "kernel", [6 17]);
%! mrkit_expect_error("mrkit:coilmaps: kernel must have 1 to 3 elements", "coilmaps", kk, [8 4], "kernel", [2 2 2 2]);
%! mrkit_expect_error("mrkit:coilmaps: threshold must be at least 0 and below 1", "coilmaps", kk, [8 4], "threshold", 1);
%! mrkit_expect_error("mrkit:coilmaps: threshold must be finite", "coilmaps", kk, [8 4], "threshold", NaN);
%! mrkit_expect_error("mrkit:coilmaps: window must hold odd sizes (a voxel and its neighbours)", "coilmaps", kk, [8 4], "window", [5 4]);
%! mrkit_expect_error("mrkit:coilmaps: window must hold integers from 1 to 99", "coilmaps", kk, [8 4], "window", 0);
%! mrkit_expect_error("mrkit:coilmaps: kspace is zero in its calibration block", "coilmaps", zeros(8, 6, 1, 3, "single"), [8 4]);
%! bad = kk;
%! bad(4, 3, 1, 2) = Inf;
%! mrkit_expect_error("mrkit:coilmaps: kspace must be finite in its calibration block", "coilmaps", bad, [8 4]);
%! gap = kk;
%! gap(:, 4, :, :) = 0;
%! lastwarn("");
%! mrkit("coilmaps", gap, [8 4]);
%! [msg, id] = lastwarn();
%! assert(id, "mrkit:coilmaps");
%! assert(msg, "mrkit:coilmaps: 1 lines of the calibration block are zero; calibSize is larger than the fully sampled centre");
%! x = single(ones(20, 4));
%! mrkit_expect_error("mrkit:noisecov: samples must be single", "noisecov", double(x), 2);
%! mrkit_expect_error("mrkit:noisecov: coilDim must be an integer from 1 to 2", "noisecov", x, 3);
%! mrkit_expect_error("mrkit:noisecov: samples must hold at least as many samples per coil as coils (20), or the covariance is singular", "noisecov", x, 1);
%! mrkit_expect_error("mrkit:noisecov: samples must hold at least one coil along coilDim", "noisecov", zeros(3, 0, "single"), 2);
%! x(2) = NaN;
%! mrkit_expect_error("mrkit:noisecov: samples must be finite (the covariance is not)", "noisecov", x, 2);
%! mrkit_expect_error("mrkit:noisecov: wrong number of inputs; usage: psi = mrkit('noisecov', samples, coilDim)", "noisecov", x);
