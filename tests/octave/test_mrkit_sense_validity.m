% mrkit('sense', ...) with masked coil maps (zero outside the object, as map estimators give
% them): the per-voxel default unfolds them exactly, 'validity', 'exact' keeps the reference
% results bit for bit, and whatever is not finite is counted, warned about and never reported
% as success.

%!shared nx, ny, rho, sens, mask
%! nx = 64;
%! ny = 60;
%! rho = mrkit_phantom([nx ny]);
%! sens = mrkit_coil_maps(nx, ny, 8);
%! mask = rho > 0;

%!test
%! % Masked maps at R = 2, 3, 4 and 2.5: exact inside the object, nothing not finite, zero
%! % where no map has signal. Data in an arbitrary scale.
%! grown = conv2(double(mask), ones(7), "same") > 0;
%! for R = [2 3 4 2.5]
%!   for m = {mask, grown}
%!     folded = 1e4 * mrkit_fold(rho .* sens, 2, ny / R);
%!     warning("error", "mrkit:sense:nonfinite", "local");
%!     [img, status, info] = mrkit("sense", folded, sens .* m{1}, [nx ny]);
%!     assert(status, 1);
%!     assert(info.nonfinite, 0);
%!     assert(info.skipped, 0);
%!     assert(mrkit_nrmse(img(mask) / 1e4, rho(mask)) < 1e-5, "R = %g: %g", R, mrkit_nrmse(img(mask) / 1e4, rho(mask)));
%!     assert(all(img(! m{1}) == 0));
%!   end
%! end

%!test
%! % 3-D, 2 x 2 along y and z, 16 coils with a rounded mask wider than the object.
%! n = [24 32 16];
%! vol = mrkit_phantom(n);
%! [x, y, z] = mrkit_grid(n);
%! % Coils above and below the slab, so that the maps vary along z as well.
%! maps = mrkit_coil_maps(n(1), n(2), 16) .* (1 + 0.6 * z .* reshape((-1).^(1:16), 1, 1, 1, 16));
%! rounded = (x / 0.85).^2 + (y / 0.97).^2 + (z / 0.95).^2 <= 1;
%! assert(all(rounded(vol > 0)));
%! folded = mrkit_fold(mrkit_fold(vol .* maps, 2, n(2) / 2), 3, n(3) / 2);
%! [img, status, info] = mrkit("sense", folded, maps .* rounded, n);
%! assert([status, info.nonfinite], [1 0]);
%! assert(mrkit_nrmse(img(vol > 0), vol(vol > 0)) < 1e-5);

%!test
%! % The reference rule: the same NaN as MR_sense_recon gives, status 0 and the warning.
%! folded = mrkit_fold(rho .* sens, 2, ny / 2);
%! lastwarn("");
%! [img, status, info] = mrkit("sense", folded, sens .* mask, [nx ny], "validity", "exact");
%! [msg, id] = lastwarn();
%! assert(id, "mrkit:sense:nonfinite");
%! assert(! isempty(strfind(msg, sprintf("%d of %d output samples are not finite", info.nonfinite, nx * ny))));
%! assert(status, 0);
%! assert(info.nonfinite, nnz(! isfinite(img)));
%! assert(info.nonfinite > 0);
%! % NaN from the data itself are counted the same way, under either rule.
%! bad = folded;
%! bad(3, 5, 1, 2) = NaN;
%! [img, status, info] = mrkit("sense", bad, sens, [nx ny], "validity", "VOXEL");
%! assert(status, 0);
%! assert(info.nonfinite >= 2);  % the voxel's two aliased positions at least

%!test
%! % Maps non-zero everywhere: both rules give the same bits, with noise, a prior and R = 2.5.
%! randn("state", 4);
%! folded = mrkit_fold(rho .* sens, 2, ny / 2.5);
%! folded += 0.02 * complex(single(randn(size(folded))), single(randn(size(folded))));
%! a = complex(randn(8), randn(8));
%! psi = single(0.0004 * (eye(8) + 0.1 * (a * a') / 8));
%! opts = {"noise", psi, "reference", rho + 0.1, "regularization", rho + 0.1, "regScale", 2};
%! [a1, s1] = mrkit("sense", folded, sens, [nx ny], opts{:});
%! [a2, s2] = mrkit("sense", folded, sens, [nx ny], opts{:}, "validity", "exact");
%! assert([s1 s2], [1 1]);
%! assert(isequal(typecast(real(a1(:)), "uint32"), typecast(real(a2(:)), "uint32")));
%! assert(isequal(typecast(imag(a1(:)), "uint32"), typecast(imag(a2(:)), "uint32")));

%!test
%! % A prior without a noise covariance is warned about; with one it is not.
%! folded = mrkit_fold(rho .* sens, 2, ny / 2);
%! lastwarn("");
%! mrkit("sense", folded, sens, [nx ny], "reference", rho, "regularization", rho);
%! [msg, id] = lastwarn();
%! assert(id, "mrkit:sense");
%! assert(! isempty(strfind(msg, "regularization without noise")));
%! lastwarn("");
%! mrkit("sense", folded, sens, [nx ny], "reference", rho, "regularization", rho, "noise", eye(8, "single"));
%! assert(lastwarn(), "");

%!error <mrkit:sense: validity must be 'voxel' or 'exact'>
%! mrkit("sense", mrkit_fold(rho .* sens, 2, 30), sens, [nx ny], "validity", "column");
%!error <mrkit:sense: validity must be 'voxel' or 'exact'>
%! mrkit("sense", mrkit_fold(rho .* sens, 2, 30), sens, [nx ny], "validity", 1);
