function img = mrkit_sense_phantom(nx, ny)
  % IMG = MRKIT_SENSE_PHANTOM(NX, NY) is a real single NX-by-NY head-like test object: a sum of
  % ellipses with flat intensities, filling about 80% of the field of view along each axis.
  [x, y] = ndgrid(linspace(-1, 1, nx), linspace(-1, 1, ny));
  % centre x, centre y, half axis x, half axis y, angle (degrees), intensity
  e = [ 0     0     0.80  0.90    0   1.0
        0     0.02  0.74  0.84    0  -0.7
       -0.22  0.10  0.14  0.32  -18   0.35
        0.24  0.10  0.11  0.26   18   0.25
        0    -0.45  0.20  0.08    0   0.3
        0.05  0.40  0.06  0.06    0   0.45
       -0.10 -0.20  0.04  0.04    0   0.5];
  img = zeros(nx, ny);
  for k = 1:rows(e)
    c = cosd(e(k, 5));
    s = sind(e(k, 5));
    u = (x - e(k, 1)) * c + (y - e(k, 2)) * s;
    v = -(x - e(k, 1)) * s + (y - e(k, 2)) * c;
    img((u / e(k, 3)).^2 + (v / e(k, 4)).^2 <= 1) += e(k, 6);
  end
  img = single(img);
end
