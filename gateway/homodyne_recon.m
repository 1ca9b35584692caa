function img = homodyne_recon(kspace, kxrange, kyrange, kzrange)
  % HOMODYNE_RECON  Homodyne reconstruction of partial-Fourier k-space.
  %   IMG = homodyne_recon(KSPACE, KXRANGE, KYRANGE, KZRANGE) reconstructs the real image
  %   of k-space KSPACE (k-space along dimensions 1 to 3, centre at index floor(n/2)+1;
  %   dimensions 4 and up are independent volumes) that was sampled from the first to the
  %   last coordinate given by each range, [first last] counted from the centre, or [] for a
  %   fully sampled axis. Trailing ranges may be omitted. Unsampled lines should be zero.
  %
  %   Steps: homodyne('filter') weights the data and returns the symmetrically sampled
  %   centre block; the centre block is zero-padded back to the full k-space size at its own
  %   place, both are transformed with a centred inverse FFT, and homodyne('multiply')
  %   removes the low-resolution phase and keeps the real part.
  %
  %   Zero padding rather than interpolation: the centre block padded in k-space gives its
  %   image on exactly the grid of the full image, whereas linear interpolation of the small
  %   image would misplace it by a fraction of a low-resolution pixel (the two FFT grids do
  %   not share their end samples) and ignore the periodic field of view.
  %
  %   A given asymmetric range must miss part of the low (negative) side, start below the
  %   centre and sample from 0.55 to below 1 of the symmetric extent; otherwise an error is
  %   raised. Only the safe forms of homodyne are used: KSPACE is never modified.
  %
  %   IMG is real single: the magnitude image with the sign of the real part after phase
  %   removal (use abs(IMG) for display). Where the low-resolution image is exactly zero
  %   (no phase to remove) IMG holds the real part of the weighted image.
  %
  %   Example (5/8 partial Fourier along ky, 160 of 256 lines):
  %     truth  = mrkit_phantom([256 256]) .* exp(1i * mrkit_smooth_phase([256 256]));
  %     k      = mrkit_fftc(truth);
  %     k(:, 1:96) = 0;                              % ky coordinates -128 .. -33 missing
  %     img    = homodyne_recon(single(k), [], [-32 127]);
  %
  %   See also HOMODYNE.

  if nargin < 2, kxrange = []; end
  if nargin < 3, kyrange = []; end
  if nargin < 4, kzrange = []; end
  if ~isa(kspace, 'single')
    kspace = single(kspace);
  end
  ranges = {kxrange, kyrange, kzrange};
  names = {'kx', 'ky', 'kz'};
  sz = size(kspace);
  axes = 1:min(3, ndims(kspace));
  for d = axes
    r = double(ranges{d});
    if numel(r) == 2 && abs(r(1) + r(2)) > 1 && fix(r(1)) >= 0
      error('homodyne_recon: the %s-range must start below the k-space centre', names{d});
    end
  end

  [low, weighted] = homodyne('filter', kspace, kxrange, kyrange, kzrange);

  % The centre block sits symmetrically about the centre of every filtered axis; an axis
  % the filter left whole keeps its full length.
  place = repmat({':'}, 1, ndims(kspace));
  for d = axes
    n = sz(d);
    nb = size(low, d);
    if nb == n
      continue;
    end
    if nb == 1
      error('homodyne_recon: the filter does not accept the %s-range [%g %g]', names{d}, ...
            ranges{d}(1), ranges{d}(2));
    end
    c = floor(n / 2) + 1;
    place{d} = c - (nb - 1) / 2 : c + (nb - 1) / 2;
  end
  padded = complex(zeros(sz, 'single'));
  padded(place{:}) = low;

  image = ifftc(weighted, axes);
  lowimage = ifftc(padded, axes);
  img = homodyne('multiply', image, lowimage);
  % Where the low-resolution image is exactly zero its phase is undefined and multiply gives
  % NaN: keep the real part there.
  undefined = lowimage == 0;
  img(undefined) = real(image(undefined));
end

function x = ifftc(x, axes)
  for d = axes
    x = fftshift(ifft(ifftshift(x, d), [], d), d);
  end
end
