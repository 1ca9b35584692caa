function folded = mrkit_fold(x, dim, foldedSize)
  % FOLDED = MRKIT_FOLD(X, DIM, FOLDEDSIZE) aliases X along dimension DIM (2 or 3) onto
  % FOLDEDSIZE positions, as an undersampled acquisition with a reduced, centred field of view
  % sees it: full position p (0-based) adds to folded position mod(p - s, FOLDEDSIZE), where
  % s = ceil((N - FOLDEDSIZE) / 2) and N = size(X, DIM). The reduction factor N / FOLDEDSIZE
  % need not be an integer.
  n = size(x, dim);
  s = ceil((n - foldedSize) / 2);
  shape = size(x);
  shape(end + 1:max(dim, numel(shape))) = 1;
  shape(dim) = foldedSize;
  folded = zeros(shape, class(x));
  idx = repmat({':'}, 1, numel(shape));
  src = idx;
  for p = 0:n - 1
    idx{dim} = mod(p - s, foldedSize) + 1;
    src{dim} = p + 1;
    folded(idx{:}) += x(src{:});
  end
end
