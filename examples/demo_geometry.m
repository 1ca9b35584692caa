function result = demo_geometry(outdir)
  % RESULT = DEMO_GEOMETRY(OUTDIR) evaluates gradient non-linearity for an illustrative set of
  % spherical-harmonic coefficients (reference radius 250 mm) with mrkit('gradwarp', ...) over
  % the central transverse (z = 0) and coronal (y = 0) planes, prints the largest displacement
  % within a few radii and writes geometry_displacement.png into OUTDIR. Then it distorts a
  % grid phantom as the scanner would, corrects it with mrkit('unwarp', ...), prints the
  % residual error and writes geometry_unwarp.png (see demo_unwarp below).
  %
  % The coefficients are made up to look like a short-bore gradient set: linear terms 1, and
  % third- and fifth-degree terms of a few per cent that bend the fields towards the edge of the
  % field of view. They are not any real scanner's.
  r0 = 250;                                % mm
  coefSin = zeros(14, 12);                 % rows: degree 0..13, columns: order 0..11
  coefCos = zeros(14, 12);
  coefZ = zeros(17, 1);                    % degree 0..16
  coefCos(2, 2) = 1;                       % x gradient: linear term, degree 1 order 1
  coefCos(4, 2) = -0.045;                  % degree 3, order 1
  coefCos(4, 4) = 0.006;                   % degree 3, order 3
  coefCos(6, 2) = 0.012;                   % degree 5, order 1
  coefSin(2, 2) = 1;                       % y gradient
  coefSin(4, 2) = -0.04;
  coefSin(4, 4) = -0.005;
  coefSin(6, 2) = 0.01;
  coefZ(2) = 1;                            % z gradient
  coefZ(4) = -0.05;
  coefZ(6) = 0.015;

  fov = 200;                               % half width of the planes, mm
  [u, v] = ndgrid(single(linspace(-fov, fov, 161)));
  planes = {"transverse z=0", u, v, zeros(size(u), "single");
            "coronal y=0", u, zeros(size(u), "single"), v};
  printf("\nGradient non-linearity, illustrative coefficients, r0 = %d mm\n", r0);
  printf("  %-16s %14s %14s %14s\n", "plane", "max |d| r<100", "r<150", "r<200 mm");
  images = {};
  labels = {};
  for k = 1:rows(planes)
    [x, y, z] = planes{k, 2:4};
    [xo, yo, zo] = mrkit("gradwarp", x, y, z, coefSin, coefCos, coefZ, r0);
    d = sqrt((xo - x).^2 + (yo - y).^2 + (zo - z).^2);
    r = sqrt(x.^2 + y.^2 + z.^2);
    inside = @(radius) max(d(r < radius));
    printf("  %-16s %14.2f %14.2f %14.2f\n", planes{k, 1}, inside(100), inside(150), inside(200));
    d(r > fov) = 0;                          % show the sphere the coefficients describe
    images{end + 1} = d;
    labels{end + 1} = planes{k, 1};
    result.(strrep(strtok(planes{k, 1}), " ", "")) = d;
  end
  top = ceil(max(cellfun(@(d) max(d(:)), images)));
  bar = repmat(linspace(top, 0, rows(images{1})).', 1, 12);
  file = fullfile(outdir, "geometry_displacement.png");
  mrkit_save_panels(file, [images {bar}], [labels {sprintf("0-%d mm", top)}], ...
                    {[0 top], [0 top], [0 top]}, viridis(256));
  printf("  picture: %s\n  (displacement magnitude, 0 to %d mm as the bar on the right; x runs down,\n", ...
         file, top);
  printf("   y or z across, 2.5 mm per pixel; outside the 200 mm sphere set to 0)\n");
  result.unwarp = demo_unwarp(outdir, coefSin, coefCos, coefZ, r0);
end

function result = demo_unwarp(outdir, coefSin, coefCos, coefZ, r0)
  % A lattice of lines every 10 mm (3 mm wide) inside a 175 mm sphere (its
  % distorted image stays inside the field of view), imaged as a 50 mm slab
  % of 1.25 mm voxels over a 400 mm field of view (321 x 321 x 41, one voxel on the
  % isocentre). The distorted image is what the scanner records: the voxel at encoded
  % position e shows the object at its true position, found with the warp direction's
  % displacement, scaled by the volume change (the warp of a volume of ones). Both are sampled
  % from the analytic object, so the residual after unwarping is the correction's own error.
  n = [321 321 41];
  h = 1.25;
  affine = [h * eye(3) (-h * (n - 1) / 2).'; 0 0 0 1];
  [x, y, z] = ndgrid(h * single(-(n(1) - 1) / 2:(n(1) - 1) / 2), ...
                     h * single(-(n(2) - 1) / 2:(n(2) - 1) / 2), ...
                     h * single(-(n(3) - 1) / 2:(n(3) - 1) / 2));
  truth = lattice(x, y, z);

  [scale, d] = mrkit("unwarp", ones(n, "single"), affine, coefSin, coefCos, coefZ, r0, ...
                     "direction", "warp");
  distorted = lattice(x + d(:, :, :, 1), y + d(:, :, :, 2), z + d(:, :, :, 3)) .* scale;
  clear d scale;
  tic;
  [linear, u] = mrkit("unwarp", distorted, affine, coefSin, coefCos, coefZ, r0);
  seconds = toc;
  cubic = mrkit("unwarp", distorted, affine, coefSin, coefCos, coefZ, r0, "interp", "cubic");

  % Inside the object, away from the slab's faces, where the slab holds what each voxel needs.
  r = sqrt(x.^2 + y.^2);
  inner = abs(z) <= 10;
  printf("\nUnwarping a 10 mm line lattice: %dx%dx%d voxels of %.2f mm, Jacobian on, %.1f s\n", ...
         n, h, seconds);
  printf("  (the distorted image sampled from the object at each voxel's true position)\n");
  printf("  %-22s %12s %12s %12s\n", "RMS error vs object", "r<100", "r<150", "r<175 mm");
  cases = {"distorted", "distorted", distorted; "unwarped, trilinear", "linear", linear;
           "unwarped, Catmull-Rom", "cubic", cubic};
  for q = 1:rows(cases)
    e = (cases{q, 3} - truth).^2;
    rms = @(radius) sqrt(mean(e(inner & r < radius)));
    printf("  %-22s %12.4f %12.4f %12.4f\n", cases{q, 1}, rms(100), rms(150), rms(175));
    result.(cases{q, 2}) = [rms(100) rms(150) rms(175)];
  end
  printf("  (the lines peak at 1; voxels within 10 mm of the central plane)\n");

  c = (n(3) + 1) / 2;  % the plane through the isocentre
  shift = sqrt(sum(u(:, :, c, :).^2, 4));
  top = ceil(max(shift(:)));
  file = fullfile(outdir, "geometry_unwarp.png");
  mrkit_save_panels(file, {distorted(:, :, c), cubic(:, :, c), truth(:, :, c), shift}, ...
                    {"distorted", "unwarped", "object", sprintf("displacement 0-%d mm", top)}, ...
                    {[0 1], [0 1], [0 1], [0 top]}, gray(256));
  printf("  picture: %s\n  (transverse plane through the isocentre; x runs down, y across;\n", file);
  printf("   displacement: how far from each voxel it was sampled, 0 to %d mm, black to white)\n", top);
end

function v = lattice(x, y, z)
  % Lines along x, y and z through every point whose other two coordinates are multiples of
  % 10 mm: Gaussian profile of 3 mm FWHM, 1 on a line (also where lines cross).
  off = @(t) t - 10 * round(t / 10);
  g = @(t) exp(-4 * log(2) * off(t).^2 / 3^2);
  gx = g(x);
  gy = g(y);
  gz = g(z);
  v = max(max(gy .* gz, gx .* gz), gx .* gy);
  v(x.^2 + y.^2 + z.^2 > 175^2) = 0;
end
