function phi = mrkit_smooth_phase(sz)
  % MRKIT_SMOOTH_PHASE  Smooth, non-zero phase map (radians) of size SZ (2-D or 3-D).
  %   A low-order polynomial in the coordinates of MRKIT_PHANTOM, spanning about +-2 rad:
  %   the kind of slowly varying phase (off-resonance, coil and receiver phase) that homodyne
  %   reconstruction estimates from the centre of k-space.
  %
  %   Example:  img = mrkit_phantom([128 128]) .* exp(1i * mrkit_smooth_phase([128 128]));

  [x, y, z] = mrkit_grid(sz);
  phi = single(pi * (0.3 * x - 0.2 * y + 0.25 * x .* y + 0.2 * (x.^2 - y.^2) + 0.15 * z));
end
