function img = mrkit_ifftc(k, dims)
  % MRKIT_IFFTC  Centred inverse FFT along the dimensions DIMS (default: 1 to min(3, ndims)).
  %   See also MRKIT_FFTC.
  if nargin < 2
    dims = 1:min(3, ndims(k));
  end
  img = k;
  for d = dims
    img = fftshift(ifft(ifftshift(img, d), [], d), d);
  end
end
