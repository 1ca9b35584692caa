function sens = mrkit_coil_maps(nx, ny, ncoils)
  % SENS = MRKIT_COIL_MAPS(NX, NY, NCOILS) gives smooth complex single coil sensitivities of
  % size NX x NY x 1 x NCOILS: coils evenly spaced on a ring just outside the field of view,
  % magnitude falling off with the distance to the coil, phase rotating with the coil's angle
  % and slowly across the image.
  [x, y] = ndgrid(linspace(-1, 1, nx), linspace(-1, 1, ny));
  sens = zeros(nx, ny, 1, ncoils, "single");
  for c = 1:ncoils
    a = 2 * pi * (c - 1) / ncoils;
    cx = 1.3 * cos(a);
    cy = 1.3 * sin(a);
    d2 = (x - cx).^2 + (y - cy).^2;
    magnitude = 1 ./ (1 + d2 / 0.8);
    phase = a + 0.6 * (x * cos(a) - y * sin(a));
    sens(:, :, 1, c) = single(magnitude .* exp(1i * phase));
  end
end
