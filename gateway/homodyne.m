function varargout = homodyne(varargin)
  % HOMODYNE  Homodyne processing of partial-Fourier k-space in single precision (MEX).
  %
  %   LOW = homodyne('filter', KSPACE, KXRANGE, KYRANGE, KZRANGE)
  %   [LOW, WEIGHTED] = homodyne('filter', KSPACE, KXRANGE, KYRANGE, KZRANGE)
  %     KSPACE is single (real or complex), k-space centre at index floor(n/2)+1 along every
  %     axis, any number of dimensions; dimensions 4 and up are independent volumes.
  %     KXRANGE, KYRANGE, KZRANGE are double, [] or [first last]: the first and last sampled
  %     k-space coordinate of that axis, counted from the centre (e.g. [-32 127] for 5/8 of 256
  %     lines). An axis whose range is empty or symmetric within one sample is not filtered.
  %     LOW is the symmetrically sampled centre block (complex single, unweighted): 2*|first|+1
  %     samples along each filtered axis, the whole axis otherwise.
  %     The data are weighted along each filtered axis with 0 up to the first sampled
  %     coordinate, rising parabolically through 1 at the centre to 2 at its mirror, and 2
  %     beyond; several filtered axes combine by the geometric mean of their weights.
  %     Only ranges missing the low (negative) side with 0.55 <= sampled fraction < 1 filter.
  %
  %   homodyne('multiply', IMG, LOWIMG)
  %   OUT = homodyne('multiply', IMG, LOWIMG)
  %     IMG and LOWIMG are single images (already inverse-transformed) with the same number of
  %     dimensions. Each sample becomes real(IMG .* conj(L)) ./ abs(L), L being LOWIMG or, when
  %     its size differs, LOWIMG linearly interpolated onto the grid of IMG (first and last
  %     samples of both grids coincide; dimensions 4 and up must then agree). OUT is real single.
  %
  %   In-place caveat: with one output from 'filter' or none from 'multiply', the result is
  %   written into the data array itself. Every variable sharing that array changes with it,
  %   and on Octave the write into a complex array never reaches the caller. The forms with two
  %   outputs ('filter') or one output ('multiply') return new arrays and leave every input
  %   untouched; prefer them (homodyne_recon does).
  %
  %   Any other first argument (also 'Filter' or 'filter ') does nothing.
  %
  %   Example (5/8 of 256 ky lines sampled, from -32 to 127):
  %     c = @(k) fftshift(ifft2(ifftshift(k)));      % centred inverse FFT
  %     [low, weighted] = homodyne('filter', kspace, [], [-32 127], []);
  %     img = homodyne('multiply', c(weighted), c(low));
  %
  %   See also HOMODYNE_RECON.

  % The help above is all this file carries: the MEX file of the same name beside it wins the
  % call. Reaching this line means the MEX file is missing from the path.
  error('homodyne: the MEX file is not on the path (build it with scripts/build.sh)');
end
