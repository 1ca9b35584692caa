function img = mrkit_phantom(sz)
  % MRKIT_PHANTOM  Synthetic head-like magnitude image made of ellipsoids.
  %   IMG = mrkit_phantom([N M]) is an N x M image, IMG = mrkit_phantom([N M P]) an N x M x P
  %   volume (the 2-D image is the volume's central plane). Values lie in [0, 1.1], class
  %   single. Coordinates run over [-1, 1) along every axis, x down the rows.
  %
  %   Example:  imagesc(mrkit_phantom([128 128])); axis image
  %
  %   See also MRKIT_SMOOTH_PHASE.

  % intensity, semi-axes (x, y, z), centre (x, y, z), rotation about z in degrees
  e = [ 1.00  0.72 0.92 0.85   0.00  0.00  0.00    0
       -0.60  0.66 0.86 0.78   0.00 -0.02  0.00    0
        0.25  0.14 0.32 0.25  -0.25  0.10  0.00   15
        0.20  0.18 0.26 0.22   0.24  0.05  0.05  -20
        0.35  0.06 0.06 0.06   0.00  0.45  0.10    0
       -0.15  0.08 0.05 0.10   0.05 -0.50 -0.10   30
        0.30  0.025 0.025 0.04 -0.12 -0.62 0.00    0
        0.30  0.025 0.025 0.04  0.10 -0.62 0.00    0];
  [x, y, z] = mrkit_grid(sz);
  img = zeros(size(x), 'single');
  for k = 1:size(e, 1)
    t = e(k, 8) * pi / 180;
    u = (x - e(k, 5)) * cos(t) + (y - e(k, 6)) * sin(t);
    v = -(x - e(k, 5)) * sin(t) + (y - e(k, 6)) * cos(t);
    w = z - e(k, 7);
    inside = (u / e(k, 2)).^2 + (v / e(k, 3)).^2 + (w / e(k, 4)).^2 <= 1;
    img(inside) = img(inside) + e(k, 1);
  end
end
