% MRKIT  MR image reconstruction in single precision (MEX module).
%
%   Y = MRKIT(COMMAND, ...) runs one operation of the mrkit reconstruction library and returns
%   new arrays; its inputs are never changed. Data arrays must be single (real or complex as
%   stated); sizes, dimensions and scalars may be of any real numeric class. Complex data is
%   column-major with dimensions 1-3 as x, y, z; dimensions from the fourth on are independent
%   volumes unless a command says otherwise.
%
%   Commands, each with an example:
%
%   sense      SENSE unfolding of folded multi-coil images (x, y, z, coils, up to 9 more dims)
%              with coil maps (x, y, z, coils, sets along dim 8 of the data):
%                [img, status] = mrkit('sense', folded, sens, [nx ny nz]);
%              Options: 'noise' (coils x coils covariance), 'reference' and 'regularization'
%              (together: regularised unfolding), 'regScale' (default 1):
%                img = mrkit('sense', folded, sens, [nx ny], 'noise', psi);
%              img is nx x ny x nz x 1 x (dims 5.. of folded); status is 1 on success.
%   sos        root sum of squares along the coil dimension (real result):
%                y = mrkit('sos', coilImages, 4);
%   pcsos      phase-corrected sum of squares: magnitude of sos, phase of the coil signals
%              weighted by their mean magnitude along dimension 10 (complex result):
%                y = mrkit('pcsos', coilImages, 4);
%   fftshift   centre shift along dimension 1, 2 or 3, as fftshift(x, dim):
%                k = mrkit('fftshift', k, 2);
%   ifftshift  the inverse shift, as ifftshift(x, dim):
%                k = mrkit('ifftshift', k, 2);
%   zeropad    centres x in a larger array of size newSize ([nx ny] or [nx ny nz]);
%              dimensions 4 and up keep their sizes:
%                y = mrkit('zeropad', x, [256 256]);
%   ringing    Hamming-shape apodisation of k-space, cut to width samples per dimension;
%              strength 0..1 lowers the window's edge value (1 per dimension, up to 3):
%                k = mrkit('ringing', k, [0.5 0.5], [192 160]);
%   gradwarp   positions encoded by non-linear gradients at points (x, y, z): coefSin and
%              coefCos 14x12 (degree 0-13 by order 0-11), coefZ 17 values, reference radius r0
%              in the unit of the points:
%                [xo, yo, zo] = mrkit('gradwarp', x, y, z, coefSin, coefCos, coefZ, 250);
%
%   Errors name the command and the argument, e.g. "mrkit:sense: sensitivities must be single".
%
%   See also FFTSHIFT, IFFTSHIFT.
