function [results, kspace] = demo_sense(outdir)
  % [RESULTS, KSPACE] = DEMO_SENSE(OUTDIR) unfolds synthetic 8-coil data aliased at R = 2 and R = 2.5
  % along y with mrkit('sense', ...), prints the NRMSE against the original object and writes
  % sense_R2.0.png and sense_R2.5.png (original, folded, unfolded and its error, without and
  % with regularisation) into OUTDIR.
  %
  % The object is a real phantom seen through smooth complex coil sensitivities; folding
  % adds every full-field-of-view line onto the reduced field of view as the undersampled
  % acquisition would (mrkit_fold). Each case runs without noise, with complex Gaussian noise
  % on the folded data (its covariance passed as 'noise'), and with the same noise unfolded
  % with regularisation, whose reference and prior is a blurred copy of the object with a 2%
  % floor, as a low-resolution prescan would provide. A last run starts from k-space: coil maps
  % and noise covariance estimated from the data (mrkit('coilmaps'), mrkit('noisecov')), at
  % R = 2 and 2.5, beside the same unfolding with the true maps (sense_kspace_R*.png); its
  % NRMSE rows are KSPACE.
  nx = 160;
  ny = 160;
  ncoils = 8;
  rho = mrkit_phantom([nx ny]);
  sens = mrkit_coil_maps(nx, ny, ncoils);
  coilImages = rho .* sens;
  sigma = 0.01 * max(abs(coilImages(:)));
  psi = single(sigma^2 * eye(ncoils));
  blur = exp(-((-6:6).'.^2 + (-6:6).^2) / 8);
  prior = single(conv2(double(rho), blur / sum(blur(:)), "same") + 0.02 * max(rho(:)));
  randn("state", 7);

  factors = [2 2.5];
  results = struct("R", num2cell(factors), "nrmse", [], "nrmseNoisy", [], "nrmseRegularised", []);
  printf("\nSENSE unfolding, %dx%d phantom, %d coils, noise sigma %.3g (1%% of the peak coil signal)\n", ...
         nx, ny, ncoils, sigma);
  printf("  %-5s %-9s %12s %12s %14s\n", "R", "folded", "NRMSE", "NRMSE noisy", "regularised");
  for k = 1:numel(factors)
    nyFolded = ny / factors(k);
    folded = mrkit_fold(coilImages, 2, nyFolded);
    noise = sigma * complex(single(randn(size(folded))), single(randn(size(folded)))) / sqrt(2);
    [img, status] = mrkit("sense", folded, sens, [nx ny]);
    assert(status == 1, "mrkit('sense') failed");
    noisy = mrkit("sense", folded + noise, sens, [nx ny], "noise", psi);
    regularised = mrkit("sense", folded + noise, sens, [nx ny], "noise", psi, ...
                        "reference", prior, "regularization", prior, "regScale", 2);
    results(k).nrmse = mrkit_nrmse(img, rho);
    results(k).nrmseNoisy = mrkit_nrmse(noisy, rho);
    results(k).nrmseRegularised = mrkit_nrmse(regularised, rho);
    printf("  %-5.1f %3dx%-5d %12.2e %12.2e %14.2e\n", factors(k), nx, nyFolded, ...
           results(k).nrmse, results(k).nrmseNoisy, results(k).nrmseRegularised);

    top = max(rho(:));
    aliased = mrkit("sos", folded + noise, 4);
    file = fullfile(outdir, sprintf("sense_R%.1f.png", factors(k)));
    mrkit_save_panels(file, {rho, aliased, abs(noisy), 10 * abs(noisy - rho), ...
                             abs(regularised), 10 * abs(regularised - rho)}, ...
                      {"original", sprintf("folded R=%.1f (sos)", factors(k)), "unfolded", ...
                       "error x10", "regularised", "error x10"}, ...
                      {[0 top], [0 max(aliased(:))], [0 top], [0 top], [0 top], [0 top]});
    printf("        picture: %s\n", file);
  end
  kspace = from_kspace(rho, sens, sigma, outdir);
end

function results = from_kspace(rho, sens, sigma, outdir)
  % The road of a real scan: coil maps and noise covariance estimated from the data. The maps
  % come from the fully sampled centre (24 lines) of noisy k-space, masked to the object; the
  % noise covariance from a noise-only prescan. Coil maps are defined up to a factor per voxel
  % common to the coils, which the unfolded image carries: for the NRMSE that factor (known
  % here, from the true maps) is taken back out.
  [nx, ny, ~, ncoils] = size(sens);
  calibLines = 24;
  coilImages = rho .* sens;
  randn("state", 3);
  noise = @(n) sigma * complex(single(randn(n)), single(randn(n))) / sqrt(2);
  psi = mrkit("noisecov", noise([2000 ncoils]), 2);
  k = mrkit_fftc(coilImages + noise(size(coilImages)), 1:2);
  centre = floor(ny / 2) + (-calibLines / 2:calibLines / 2 - 1) + 1;
  results = struct("R", {}, "nrmseTrue", {}, "nrmseEstimated", {}, "nonfinite", {});
  printf("\nFrom k-space: coil maps from %d centre lines (mrkit('coilmaps')), noise covariance\n", ...
         calibLines);
  printf("from 2000 noise samples (mrkit('noisecov')); NRMSE inside the object\n");
  printf("  %-5s %14s %16s %12s\n", "R", "true maps", "estimated maps", "not finite");
  for R = [2 2.5]
    % Lines an R-fold acquisition samples, with the centre; the rest of k-space is zero.
    sampled = k;
    keep = false(1, ny);
    lines = round(floor(ny / 2) + 1 + R * (-ceil(ny / R):ceil(ny / R)));
    keep(lines(lines >= 1 & lines <= ny)) = true;
    keep(centre) = true;
    sampled(:, ~keep, :, :) = 0;
    maps = mrkit("coilmaps", sampled, [nx calibLines]);
    folded = mrkit_fold(coilImages, 2, ny / R);
    folded = folded + noise(size(folded));
    withTrue = mrkit("sense", folded, sens, [nx ny], "noise", psi);
    [withMaps, status, info] = mrkit("sense", folded, maps, [nx ny], "noise", psi);
    assert(status == 1, "mrkit('sense') with estimated maps failed");
    a = sum(conj(double(sens)) .* double(maps), 4) ./ sum(abs(double(sens)).^2, 4);
    inside = rho > 0;
    r = numel(results) + 1;
    results(r).R = R;
    results(r).nrmseTrue = mrkit_nrmse(withTrue(inside), rho(inside));
    results(r).nrmseEstimated = mrkit_nrmse(withMaps(inside) .* a(inside), rho(inside));
    results(r).nonfinite = info.nonfinite;
    printf("  %-5.1f %14.2e %16.2e %12d\n", R, results(r).nrmseTrue, ...
           results(r).nrmseEstimated, info.nonfinite);
    top = max(rho(:));
    file = fullfile(outdir, sprintf("sense_kspace_R%.1f.png", R));
    scaled = abs(withMaps .* a);
    mrkit_save_panels(file, {rho, abs(withTrue), 10 * abs(withTrue - rho), ...
                             mrkit("sos", maps, 4), scaled, 10 * abs(withMaps .* a - rho)}, ...
                      {"original", "true maps", "error x10", "estimated maps (sos)", ...
                       "estimated maps", "error x10"}, ...
                      {[0 top], [0 top], [0 top], [0 1], [0 top], [0 top]});
    printf("        picture: %s\n", file);
  end
end
