function result = demo_geometry(outdir)
  % RESULT = DEMO_GEOMETRY(OUTDIR) evaluates gradient non-linearity for an illustrative set of
  % spherical-harmonic coefficients (reference radius 250 mm) with mrkit('gradwarp', ...) over
  % the central transverse (z = 0) and coronal (y = 0) planes, prints the largest displacement
  % within a few radii and writes geometry_displacement.png into OUTDIR.
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
end
