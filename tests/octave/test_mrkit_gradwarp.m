% mrkit('gradwarp', ...) against the spherical-harmonic expansion evaluated independently in
% double precision with Octave's legendre().

%!function [xo, yo, zo] = expansion(x, y, z, coefSin, coefCos, coefZ, r0)
%!  % x: cosine series of orders 1..11, degrees m..13; y: sine series; z: zonal degrees 1..16;
%!  % each divided by its linear term and scaled by r0. (-1)^m undoes legendre()'s
%!  % Condon-Shortley sign.
%!  p = double([x(:) y(:) z(:)]);
%!  r = sqrt(sum(p.^2, 2));
%!  c = p(:, 3) ./ max(r, realmin);
%!  phi = atan2(p(:, 2), p(:, 1));
%!  [xo, yo, zo] = deal(zeros(size(r)));
%!  for n = 1:16
%!    P = legendre(n, c.').';
%!    radial = (r / r0).^n;
%!    zo += coefZ(n + 1) * P(:, 1) .* radial;
%!    for m = 1:min(n, 11) * (n <= 13)
%!      t = (-1)^m * P(:, m + 1) .* radial;
%!      xo += coefCos(n + 1, m + 1) * cos(m * phi) .* t;
%!      yo += coefSin(n + 1, m + 1) * sin(m * phi) .* t;
%!    end
%!  end
%!  xo = reshape(xo * r0 / coefCos(2, 2), size(x));
%!  yo = reshape(yo * r0 / coefSin(2, 2), size(x));
%!  zo = reshape(zo * r0 / coefZ(2), size(x));
%!endfunction

%!shared r0, coefSin, coefCos, coefZ, x, y, z
%! r0 = 250;
%! coefSin = zeros(14, 12);
%! coefCos = zeros(14, 12);
%! coefZ = zeros(17, 1);
%! coefCos(2, 2) = 1.3;
%! coefSin(2, 2) = 0.8;
%! coefZ(2) = 1.1;
%! rand("state", 3);
%! % Points in a 200 mm sphere, on the poles (where the library evaluates the recurrence
%! % directly) and at the origin, as a 3-D grid-shaped array.
%! u = rand(6, 5, 4);
%! v = 2 * rand(6, 5, 4) - 1;
%! w = 2 * pi * rand(6, 5, 4);
%! rr = 200 * u.^(1/3);
%! x = single(rr .* sqrt(1 - v.^2) .* cos(w));
%! y = single(rr .* sqrt(1 - v.^2) .* sin(w));
%! z = single(rr .* v);
%! x(1:3) = 0;
%! y(1:3) = 0;
%! z(1:3) = [0 150 -120];

%!test
%! % Linear terms alone encode every point where it is; each axis divides by its own term.
%! before = double([x(:) y(:) z(:)]);
%! [xo, yo, zo] = mrkit("gradwarp", x, y, z, coefSin, coefCos, coefZ, r0);
%! assert(double([x(:) y(:) z(:)]), before);  % inputs untouched
%! assert(size(xo), size(x));
%! assert(class(xo), "single");
%! % The Legendre table is sampled at the nearest point below cos(theta), 2/9999 apart; near
%! % |cos(theta)| = 0.9 that moves sin(theta) by up to 2 steps.
%! tol = 5e-4 * max(sqrt(sum(before.^2, 2)));
%! assert(xo, x, tol);
%! assert(yo, y, tol);
%! assert(zo, z, tol);
%! assert([xo(1) yo(1) zo(1)], single([0 0 0]));

%!test
%! % Higher terms of every kind, each at its own (degree, order): a transposed or swapped
%! % coefficient set moves points by millimetres, the table sampling by a tenth at most.
%! cs = coefSin;
%! cc = coefCos;
%! cz = coefZ;
%! cc(4, 2) = -0.05;    % degree 3, order 1
%! cc(4, 4) = 0.01;     % degree 3, order 3
%! cc(7, 3) = 0.02;     % degree 6, order 2
%! cs(4, 2) = -0.04;
%! cs(6, 4) = 0.015;    % degree 5, order 3
%! cs(12, 11) = 1e-9;   % degree 11, order 10 (P_11^10 reaches 2.6e9)
%! cz(4) = -0.06;       % degree 3
%! cz(6) = 0.02;
%! cz(17) = 0.01;       % degree 16
%! [xo, yo, zo] = mrkit("gradwarp", x, y, z, cs, cc, cz, r0);
%! [ex, ey, ez] = expansion(x, y, z, cs, cc, cz, r0);
%! assert(max(abs(double(xo(:)) - ex(:))), 0, 0.15);
%! assert(max(abs(double(yo(:)) - ey(:))), 0, 0.15);
%! assert(max(abs(double(zo(:)) - ez(:))), 0, 0.15);
%! moved = sqrt((ex - double(x)).^2 + (ey - double(y)).^2 + (ez - double(z)).^2);
%! assert(max(moved(:)) > 5);  % the comparison is not a trivial one
%! % Single-precision coefficients and a row of zonal terms give the same result.
%! [xs, ys, zs] = mrkit("gradwarp", x, y, z, single(cs), single(cc), single(cz.'), single(r0));
%! assert(isequal([xs ys zs], [xo yo zo]));

%!test
%! % Only the outputs asked for are returned; all are computed alike.
%! xo = mrkit("gradwarp", x(:, :, 1), y(:, :, 1), z(:, :, 1), coefSin, coefCos, coefZ, r0);
%! [xa, ya] = mrkit("gradwarp", x(:, :, 1), y(:, :, 1), z(:, :, 1), coefSin, coefCos, coefZ, r0);
%! assert(isequal(xo, xa));
%! assert(size(ya), [6 5]);
%! % No points, no work.
%! e = zeros(0, 1, "single");
%! [a, b, c] = mrkit("gradwarp", e, e, e, coefSin, coefCos, coefZ, r0);
%! assert(size(a), [0 1]);
