% mrkit('sense', ...) on a synthetic phantom seen by 8 smooth coils: the round trip through
% folding at R = 2 and 2.5, and the unfolding against a per-voxel least-squares solution
% computed independently in Octave (noise covariance, regularisation, several volumes and
% sensitivity sets, real maps, folding along z).

%!function img = least_squares(folded, sens, ny, psi, lambda, prior)
%!  % For each folded voxel v: the image values at its aliased positions are
%!  % (S' W S + D) \ (S' W v), W = inv(psi), D = diag(1 / (prior^2 lambda)), 0 where prior is 0.
%!  [nx, nf, ~, nc] = size(folded);
%!  s = ceil((ny - nf) / 2);
%!  W = inv(double(psi));
%!  img = zeros(nx, ny);
%!  for yf = 0:nf - 1
%!    p = find(mod((0:ny - 1) - s, nf) == yf);
%!    for x = 1:nx
%!      S = reshape(double(sens(x, p, 1, :)), numel(p), nc).';
%!      v = reshape(double(folded(x, yf + 1, 1, :)), nc, 1);
%!      A = S' * W * S;
%!      if lambda > 0
%!        r = double(abs(prior(x, p)));
%!        d = zeros(size(r));
%!        d(r != 0) = 1 ./ (r(r != 0).^2 * lambda);
%!        A += diag(d);
%!      end
%!      img(x, p) = (A \ (S' * W * v)).';
%!    end
%!  end
%!endfunction

%!shared nx, ny, rho, sens, noisy, psi
%! nx = 48;
%! ny = 80;
%! rho = mrkit_phantom([nx ny]);
%! sens = mrkit_coil_maps(nx, ny, 8);
%! randn("state", 11);
%! % Folded data with complex noise, and a Hermitian positive definite coil covariance.
%! noisy = @(f) f + 0.02 * complex(single(randn(size(f))), single(randn(size(f))));
%! a = complex(randn(8), randn(8));
%! psi = single(eye(8) + 0.1 * (a * a') / 8);

%!test
%! % Round trip at R = 2 and 2.5: folding then unfolding gives the object back.
%! for R = [2 2.5]
%!   folded = mrkit_fold(rho .* sens, 2, ny / R);
%!   kept = {double(folded), double(sens)};
%!   [img, status] = mrkit("sense", folded, sens, [nx ny]);
%!   assert(status, 1);
%!   assert(size(img), [nx ny]);
%!   assert(isa(img, "single") && iscomplex(img));
%!   assert(mrkit_nrmse(img, rho) < 1e-5, "R = %g: NRMSE %g", R, mrkit_nrmse(img, rho));
%!   assert(isequal({double(folded), double(sens)}, kept));  % inputs untouched
%! end

%!test
%! % With noise and a coil covariance the result is the weighted least-squares solution.
%! folded = noisy(mrkit_fold(rho .* sens, 2, 32));
%! img = mrkit("sense", folded, sens, [nx ny], "noise", psi);
%! ref = least_squares(folded, sens, ny, psi, 0, []);
%! assert(mrkit_nrmse(img, ref) < 1e-5);
%! % Identity covariance is the default.
%! assert(isequal(mrkit("sense", folded, sens, [nx ny], "noise", eye(8, "single")), ...
%!                mrkit("sense", folded, sens, [nx ny])));
%! % A real covariance matrix is taken with a zero imaginary part.
%! assert(isequal(mrkit("sense", folded, sens, [nx ny], "noise", real(psi)), ...
%!                mrkit("sense", folded, sens, [nx ny], "noise", complex(real(psi)))));

%!test
%! % Regularised: lambda = (1 / R) * (rms|folded| / (regScale * rms|reference|))^2, and the
%! % prior's magnitude on the diagonal.
%! R = 2.5;
%! folded = noisy(mrkit_fold(rho .* sens, 2, ny / R));
%! reference = 0.5 * rho;
%! prior = complex(rho + 0.05, 0.1 * rho);
%! regScale = 0.7;
%! kept = {double(reference), double(prior)};
%! img = mrkit("sense", folded, sens, [nx ny], "noise", psi, "reference", reference, ...
%!             "regularization", prior, "regScale", regScale);
%! assert(isequal({double(reference), double(prior)}, kept));
%! rms = @(a) sqrt(mean(abs(double(a(:))).^2));
%! lambda = (1 / R) * (rms(folded) / (regScale * rms(reference)))^2;
%! ref = least_squares(folded, sens, ny, psi, lambda, prior);
%! assert(mrkit_nrmse(img, ref) < 1e-5);
%! assert(mrkit_nrmse(img, least_squares(folded, sens, ny, psi, 0, [])) > 1e-3);  % it mattered

%!test
%! % Volumes along dimension 5 and sensitivity sets along dimension 8 (maps in dimension 5):
%! % each volume is unfolded with its own set, into an output with one coil dimension.
%! rot = mrkit_coil_maps(nx, ny, 8)(:, :, :, [3:8 1 2]);
%! sets = cat(5, sens, rot);
%! folded = zeros(nx, 40, 1, 8, 3, 1, 1, 2, "single");
%! for v = 1:3
%!   for s = 1:2
%!     folded(:, :, :, :, v, 1, 1, s) = mrkit_fold(v * rho .* sets(:, :, :, :, s), 2, 40);
%!   end
%! end
%! img = mrkit("sense", folded, sets, [nx ny]);
%! assert(size(img), [nx ny 1 1 3 1 1 2]);
%! for v = 1:3
%!   for s = 1:2
%!     one = mrkit("sense", folded(:, :, :, :, v, 1, 1, s), sets(:, :, :, :, s), [nx ny]);
%!     assert(isequal(img(:, :, 1, 1, v, 1, 1, s), one));
%!     assert(mrkit_nrmse(one, v * rho) < 1e-5);
%!   end
%! end

%!test
%! % Real maps and real data: the maps get a zero imaginary part (without one no position
%! % counts as covered and the result would be all zeros).
%! maps = real(sens);
%! folded = real(mrkit_fold(rho .* maps, 2, 40));
%! img = mrkit("sense", folded, maps, [nx ny]);
%! assert(isequal(img, mrkit("sense", complex(folded), complex(maps), [nx ny])));
%! assert(mrkit_nrmse(img, rho) < 1e-4);

%!test
%! % Coarser maps than the image: combination factors are interpolated onto the image grid.
%! coarse = mrkit_coil_maps(nx / 2, ny / 2, 8);
%! img = mrkit("sense", mrkit_fold(rho .* sens, 2, 32), coarse, [nx ny]);
%! assert(size(img), [nx ny]);
%! assert(mrkit_nrmse(img, rho) < 0.05);  % 0.018: the maps' own interpolation error

%!test
%! % Folding along y and z at once (R = 2 x 2) in a 3-D volume, with maps that vary along z.
%! nz = 12;
%! obj = mrkit_phantom([16 24 nz]);
%! zz = reshape(linspace(-1, 1, nz), 1, 1, []);
%! maps = repmat(mrkit_coil_maps(16, 24, 8), 1, 1, nz);
%! for c = 1:8
%!   maps(:, :, :, c) .*= single((1 + 0.6 * (-1)^c * zz) .* exp(1i * 0.5 * c * zz));
%! end
%! folded = mrkit_fold(mrkit_fold(obj .* maps, 2, 12), 3, 6);
%! [img, status] = mrkit("sense", folded, maps, [16 24 nz]);
%! assert(status, 1);
%! assert(size(img), [16 24 nz]);
%! assert(mrkit_nrmse(img, obj) < 1e-4);
