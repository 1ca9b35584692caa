function k = mrkit_fftc(img, dims)
  % MRKIT_FFTC  Centred forward FFT along the dimensions DIMS (default: 1 to min(3, ndims)).
  %   The centre sample (index floor(n/2)+1) maps to the k-space centre and back; scaled so
  %   that MRKIT_IFFTC inverts it exactly.
  if nargin < 2
    dims = 1:min(3, ndims(img));
  end
  k = img;
  for d = dims
    k = fftshift(fft(ifftshift(k, d), [], d), d);
  end
end
