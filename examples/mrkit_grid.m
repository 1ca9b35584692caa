function [x, y, z] = mrkit_grid(sz)
  % MRKIT_GRID  Coordinates in [-1, 1) along each axis of a 2-D or 3-D grid of size SZ.
  %   Zero lies at index floor(n/2)+1, the k-space centre convention of mrkit. z is 0 for 2-D.
  c = @(n) ((0:n-1) - floor(n / 2)) / (n / 2);
  if numel(sz) < 3
    [x, y] = ndgrid(c(sz(1)), c(sz(2)));
    z = zeros(size(x));
  else
    [x, y, z] = ndgrid(c(sz(1)), c(sz(2)), c(sz(3)));
  end
end
