function r = mrkit_thread_cases()
  % R = MRKIT_THREAD_CASES() runs every mrkit command on fixed data with several volumes, so
  % that the library splits the work over threads; test_mrkit_threads compares the results
  % for different thread counts.
  randn("state", 21);
  c = @(varargin) complex(single(randn(varargin{:})), single(randn(varargin{:})));
  x = c(9, 7, 5, 6, 3);
  r.fftshift = mrkit("fftshift", x, 2);
  r.ifftshift = mrkit("ifftshift", x, 3);
  r.zeropad = mrkit("zeropad", x, [12 10 8]);
  r.ringing = mrkit("ringing", x, [0.3 0.5 0.2], [7 6 5]);
  r.sos = mrkit("sos", x, 4);
  r.pcsos = mrkit("pcsos", cat(10, x, 2 * x), 4);
  p = 100 * single(randn(4000, 3));
  coefSin = zeros(14, 12);
  coefSin([2 4 6], 2) = [1 -0.04 0.01];
  coefZ = [0 1 0 -0.05 zeros(1, 13)];
  [r.xo, r.yo, r.zo] = mrkit("gradwarp", p(:, 1), p(:, 2), p(:, 3), coefSin, 2 * coefSin, coefZ, 250);
  rho = mrkit_phantom([32 40]);
  sens = mrkit_coil_maps(32, 40, 6);
  folded = mrkit_fold(rho .* sens, 2, 16) .* reshape(single(1:3), 1, 1, 1, 1, 3);
  r.sense = mrkit("sense", folded, sens, [32 40], "reference", rho, "regularization", rho + 0.1);
end
