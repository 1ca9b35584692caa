"""mrkit: MR image reconstruction in single precision.

Arrays keep the axis order of the library and of the Octave module: (x, y, z, coils, more);
axis arguments count from 0 as in NumPy. Any memory layout and any real or complex floating
dtype is accepted and converted once to single precision; results are new NumPy arrays
(float32 or complex64, Fortran-ordered) and inputs are never modified. Bad arguments raise
TypeError or ValueError with the text of the Octave module's message (arguments named as
there: ``fullSize`` for ``full_shape``, ``dim`` for an axis); the exception's ``id``
attribute holds the Octave identifier.

The library runs without the GIL on an OpenMP team of ``threads`` threads (default: the
``OMP_NUM_THREADS`` environment variable at the time of the call, else every core); results do
not depend on the thread count.
"""

import os

import numpy as np

from . import _mrkit

__all__ = [
    "homodyne_filter", "homodyne_multiply", "homodyne_recon", "sense", "sos", "pcsos",
    "fftshift", "ifftshift", "zeropad", "ringing", "gradwarp", "call", "commands",
    "coilmaps", "noisecov", "unwarp", "gradfile",
]


def _threads(threads):
    """The team size for one call: 0 lets the OpenMP runtime choose."""
    if threads is None:
        env = os.environ.get("OMP_NUM_THREADS", "").split(",")[0].strip()
        return int(env) if env.isdigit() and int(env) > 0 else 0
    if isinstance(threads, bool) or not isinstance(threads, (int, np.integer)):
        raise TypeError("threads must be a positive integer")
    if threads < 1:
        raise ValueError("threads must be a positive integer")
    return int(threads)


def call(command, *args, threads=None):
    """Run one command of the Octave module ``mrkit`` with the same arguments.

    The generic path under every function of this package: arrays, numbers and option names
    are passed as in Octave (option names as strings, each followed by its value), axis
    arguments count from 0.

    Parameters
    ----------
    command : str
        Command name, one of :func:`commands`.
    *args
        The command's arguments after the command string.
    threads : int, optional
        OpenMP threads for this call.

    Returns
    -------
    tuple
        Every output of the command, in the order of its Octave usage.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> (y,) = mrkit.call("fftshift", np.arange(4.0).reshape(4, 1), 0)
    >>> y.ravel()
    array([2., 3., 0., 1.], dtype=float32)
    """
    return _mrkit.call(command, args, _threads(threads))


def commands():
    """Names of the commands :func:`call` runs.

    Examples
    --------
    >>> import mrkit
    >>> "sense" in mrkit.commands()
    True
    """
    return list(_mrkit.commands())


def _same_shape(y, x):
    """The result with the input's shape (the layer reports at least two dimensions)."""
    shape = np.shape(x)
    return y.reshape(shape, order="F") if y.size == int(np.prod(shape)) else y


def fftshift(x, axis, *, threads=None):
    """Centre shift along one of the first three axes, as ``np.fft.fftshift(x, axes=axis)``.

    Parameters
    ----------
    x : array_like, real or complex floating
        Data; axes 0-2 are x, y, z, later axes are independent volumes.
    axis : int
        0, 1 or 2.
    threads : int, optional
        OpenMP threads for this call.

    Returns
    -------
    numpy.ndarray
        float32 or complex64, the shape of ``x``.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> mrkit.fftshift(np.arange(5.0), 0)
    array([3., 4., 0., 1., 2.], dtype=float32)
    """
    return _same_shape(call("fftshift", x, axis, threads=threads)[0], x)


def ifftshift(x, axis, *, threads=None):
    """Inverse of :func:`fftshift`, as ``np.fft.ifftshift(x, axes=axis)``; the same arguments
    and result.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> mrkit.ifftshift(np.arange(5.0), 0)
    array([2., 3., 4., 0., 1.], dtype=float32)
    """
    return _same_shape(call("ifftshift", x, axis, threads=threads)[0], x)


def zeropad(x, new_shape, *, threads=None):
    """Centre ``x`` in a larger zero array.

    Along each of the first two or three axes the data is placed as ``np.pad`` with
    ``(m - n + 1) // 2`` zeros before and the rest after (an odd extra zero goes to the low
    end). Later axes keep their sizes.

    Parameters
    ----------
    x : array_like, real or complex floating
        Data.
    new_shape : sequence of 2 or 3 ints
        New sizes of axes 0-1 or 0-2, none smaller than the data's.
    threads : int, optional
        OpenMP threads for this call.

    Returns
    -------
    numpy.ndarray
        float32 or complex64 of shape ``new_shape + x.shape[3:]``.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> mrkit.zeropad(np.ones((2, 1)), (5, 1)).ravel()
    array([0., 0., 1., 1., 0.], dtype=float32)
    """
    return call("zeropad", x, new_shape, threads=threads)[0]


def ringing(x, strength, width, *, threads=None):
    """Hamming-shape apodisation of centred k-space, cut to ``width`` samples per axis.

    Parameters
    ----------
    x : array_like, real or complex floating
        Centred k-space; axes 0-2 are filtered, later axes are independent volumes.
    strength : sequence of 1 to 3 floats
        Per axis, 0 (a flat window) to 1 (window edge at 0.085).
    width : sequence of 1 to 3 ints
        Per axis, the samples the window spans; outside it the data becomes zero. An axis
        without an entry is left alone.
    threads : int, optional
        OpenMP threads for this call.

    Returns
    -------
    numpy.ndarray
        float32 or complex64, the shape of ``x``.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> k = mrkit.ringing(np.ones((8, 8), np.complex64), [1, 1], [6, 6])
    >>> bool(k[4, 4].real == 1), bool(k[0, 0] == 0)
    (True, True)
    """
    return _same_shape(call("ringing", x, strength, width, threads=threads)[0], x)


def sos(x, coil_axis=3, *, threads=None):
    """Root sum of squares over the coils: ``sqrt(sum(abs(x)**2, coil_axis, keepdims=True))``.

    Parameters
    ----------
    x : array_like, real or complex floating
        Coil images.
    coil_axis : int, optional
        Axis of the coils (default 3: x, y, z, coils).
    threads : int, optional
        OpenMP threads for this call.

    Returns
    -------
    numpy.ndarray
        float32, the shape of ``x`` with 1 along the coil axis.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> mrkit.sos(np.array([[3.0, 4.0j]]), coil_axis=1)
    array([[5.]], dtype=float32)
    """
    return call("sos", x, coil_axis, threads=threads)[0]


def pcsos(x, coil_axis=3, *, threads=None):
    """Phase-corrected sum of squares: the magnitude of :func:`sos` with the phase of the coil
    signals weighted by their mean magnitude along axis 9 (echoes stacked there keep their
    phase differences).

    Parameters
    ----------
    x : array_like, real or complex floating
        Coil images.
    coil_axis : int, optional
        Axis of the coils (default 3), not 9.
    threads : int, optional
        OpenMP threads for this call.

    Returns
    -------
    numpy.ndarray
        complex64, the shape of ``x`` with 1 along the coil axis.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> y = mrkit.pcsos(np.array([[3j, 4j]]), coil_axis=1)
    >>> y.shape, float(abs(y[0, 0])), round(float(np.angle(y[0, 0])), 4)
    ((1, 1), 5.0, 1.5708)
    """
    return call("pcsos", x, coil_axis, threads=threads)[0]


def gradwarp(x, y, z, coef_sin, coef_cos, coef_z, r0, *, threads=None):
    """Positions encoded by non-linear gradients at the points (x, y, z).

    Parameters
    ----------
    x, y, z : array_like, real floating
        Point coordinates, all of one shape.
    coef_sin, coef_cos : array_like, shape (14, 12)
        Spherical-harmonic coefficients of the y and x gradients, ``[degree, order]``.
    coef_z : array_like, 17 values
        Zonal coefficients of the z gradient by degree.
    r0 : float
        Reference radius, in the unit of the points.
    threads : int, optional
        OpenMP threads for this call.

    Returns
    -------
    (xo, yo, zo) : tuple of numpy.ndarray
        float32, the shape of ``x``.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> cs = np.zeros((14, 12)); cs[1, 1] = 1
    >>> cz = np.zeros(17); cz[1] = 1
    >>> p = np.array([10.0, -20.0])
    >>> xo, yo, zo = mrkit.gradwarp(p, p, p, cs, cs, cz, 250)
    >>> bool(np.allclose(xo, p, atol=0.05))     # linear gradients: no displacement
    True
    """
    out = call("gradwarp", x, y, z, coef_sin, coef_cos, coef_z, r0, threads=threads)
    return tuple(_same_shape(o, x) for o in out)


def _option_name(keyword):
    """reg_scale -> regScale: Python keywords name the Octave options."""
    head, *rest = keyword.split("_")
    return head + "".join(w[:1].upper() + w[1:] for w in rest)


def sense(folded, sens, full_shape, *, noise=None, reference=None, regularization=None,
          reg_scale=1.0, threads=None, **options):
    """SENSE unfolding of folded multi-coil images, non-integer reduction factors included.

    Parameters
    ----------
    folded : array_like, complex floating
        Folded coil images (x, y, z, coils, up to nine more axes); axis 7 selects the set of
        coil maps, the others are independent volumes. x is never folded.
    sens : array_like, floating
        Coil maps (x, y, z, coils, sets) on their own grid, zero outside the object if need
        be: an aliased position takes part where some coil's map is non-zero there
        (``validity="exact"``: the library's reference rule, only the first coil's real map).
    full_shape : sequence of 2 or 3 ints
        Unfolded sizes of axes 0-1 or 0-2 (``full_shape[0] == folded.shape[0]``).
    noise : array_like, optional
        Coil noise covariance, coils x coils.
    reference, regularization : array_like, optional
        Together: regularised unfolding. The reference image's RMS sets the weight, the
        regularization holds one prior magnitude map of the maps' x-y-z size per set.
    reg_scale : float, optional
        Multiplies the regularisation weight (default 1).
    threads : int, optional
        OpenMP threads for this call.
    **options
        Further options of the Octave command by their names in snake case, e.g.
        ``validity="exact"`` where the command has that option.

    Returns
    -------
    image : numpy.ndarray
        complex64, ``full_shape + (1,) + folded.shape[4:]``; zero where nothing unfolds.
    info : dict
        ``status`` is 1.0 on success, 0.0 when a sample of the image is not finite (with a
        warning), -1.0 when voxels were skipped; ``nonfinite`` counts the samples not finite,
        ``skipped`` is 1.0 when voxels were skipped.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> rng = np.random.default_rng(1)
    >>> truth = rng.standard_normal((8, 8, 1)) + 0j
    >>> sens = np.ones((8, 8, 1, 2), np.complex64); sens[:, 4:, :, 1] = -1
    >>> coils = truth[..., None] * sens
    >>> folded = np.roll(coils, -2, axis=1).reshape(8, 2, 4, 1, 2).sum(axis=1)  # R = 2
    >>> image, info = mrkit.sense(folded, sens, (8, 8))
    >>> info["status"], bool(np.allclose(image[:, :, 0, 0], truth[:, :, 0], atol=1e-5))
    (1.0, True)
    """
    args = [folded, sens, full_shape]
    given = {"noise": noise, "reference": reference, "regularization": regularization}
    given.update((_option_name(k), v) for k, v in options.items())
    for name, value in given.items():
        if value is not None:
            args += [name, value]
    if reg_scale != 1.0:
        args += ["regScale", reg_scale]
    image, *rest = call("sense", *args, threads=threads)
    return image, _info(rest)


def _options(**given):
    """Name-value arguments of the options given (not None), named as in Octave."""
    args = []
    for keyword, value in given.items():
        if value is not None:
            args += [_option_name(keyword), value]
    return args


def coilmaps(kspace, calib_shape, *, method=None, threshold=None, kernel=None, window=None,
             threads=None):
    """Coil maps from centred multi-coil k-space with a fully sampled centre.

    2-D k-space uses ESPIRiT-style calibration kernels by default (exact for smooth maps, no
    blur at the object's edges); 3-D k-space uses Walsh's method (local coil covariance of
    low-resolution images), whose cost does not grow with a 3-D kernel.

    Parameters
    ----------
    kspace : array_like, complex floating
        Centred k-space (x, y, z, coils), fully sampled in a centred block of ``calib_shape``.
    calib_shape : sequence of 2 or 3 ints
        Size of the calibration block.
    method : {'espirit', 'walsh'}, optional
        Overrides the default above.
    threshold : float, optional
        Maps are 0 where the low-resolution magnitude is below this fraction of its largest
        value (default 0.05; 0 keeps them unmasked).
    kernel : sequence of 1 to 3 ints, optional
        Calibration kernel of 'espirit' (default 6 along every axis).
    window : sequence of 1 to 3 odd ints, optional
        Covariance window of 'walsh' (default (5, 5, 3)).
    threads : int, optional
        OpenMP threads for this call.

    Returns
    -------
    numpy.ndarray
        complex64 maps (x, y, z, coils), unit norm over the coils, as :func:`sense` takes them.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> x, y = np.meshgrid(np.linspace(-1, 1, 32), np.linspace(-1, 1, 32), indexing="ij")
    >>> obj = np.exp(-2 * (x**2 + y**2))
    >>> maps = np.stack([np.exp(1j * (x + c)) for c in range(4)], axis=-1)[:, :, None, :]
    >>> k = np.fft.fftshift(np.fft.fft2(obj[:, :, None, None] * maps, axes=(0, 1)), axes=(0, 1))
    >>> s = mrkit.coilmaps(k, (32, 12), threshold=0)
    >>> s.shape, bool(np.allclose(np.sum(abs(s) ** 2, axis=3), 1, atol=1e-4))
    ((32, 32, 1, 4), True)
    """
    return call("coilmaps", kspace, calib_shape,
                *_options(method=method, threshold=threshold, kernel=kernel, window=window),
                threads=threads)[0]


def noisecov(samples, coil_axis, *, threads=None):
    """Coil noise covariance of noise-only samples, in the units of the samples squared.

    Parameters
    ----------
    samples : array_like, real or complex floating
        Noise samples (a noise prescan or background samples) with the coils along
        ``coil_axis``.
    coil_axis : int
        Axis of the coils.
    threads : int, optional
        OpenMP threads for this call.

    Returns
    -------
    numpy.ndarray
        complex64 coils x coils matrix, as :func:`sense` takes it for ``noise``.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> n = np.random.default_rng(0).standard_normal((20000, 3)) * [1, 2, 3]
    >>> np.round(np.diag(mrkit.noisecov(n, 1)).real)
    array([1., 4., 9.], dtype=float32)
    """
    return call("noisecov", samples, coil_axis, threads=threads)[0]


def unwarp(volume, affine, coef_sin, coef_cos, coef_z, r0, *, jacobian=None, interp=None,
           direction=None, threads=None):
    """Gradient non-linearity correction of a whole volume.

    Parameters
    ----------
    volume : array_like, real or complex floating
        Image volume (x, y, z); axes 3 and up share the geometry.
    affine : array_like, shape (4, 4)
        Voxel-to-scanner matrix from 0-based voxel indices (as NIfTI has it) to scanner
        coordinates in the unit of ``r0``.
    coef_sin, coef_cos, coef_z, r0
        The gradient expansion, as for :func:`gradwarp`.
    jacobian : bool, optional
        Scale the intensity by the volume change.
    interp : {'linear', 'cubic'}, optional
        Interpolation of the input (cubic: Catmull-Rom).
    direction : {'unwarp', 'warp'}, optional
        'warp' maps the true image to the distorted one.
    threads : int, optional
        OpenMP threads for this call.

    Returns
    -------
    image : numpy.ndarray
        The corrected volume, float32 or complex64; 0 where the sample lies outside.
    displacement : numpy.ndarray
        (x, y, z, 3) scanner-space vector from each voxel to where it was sampled.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> cs = np.zeros((14, 12)); cs[1, 1] = 1
    >>> cz = np.zeros(17); cz[1] = 1
    >>> vol = np.random.default_rng(0).standard_normal((8, 8, 4))
    >>> img, d = mrkit.unwarp(vol, np.diag([2.0, 2.0, 3.0, 1.0]), cs, cs, cz, 250)
    >>> d.shape, bool(np.allclose(img, vol, atol=1e-3))   # linear gradients: no distortion
    ((8, 8, 4, 3), True)
    """
    out = call("unwarp", volume, affine, coef_sin, coef_cos, coef_z, r0,
               *_options(jacobian=jacobian, interp=interp, direction=direction), threads=threads)
    return out[0], out[1]


def gradfile(path):
    r"""Read a gradient coefficient file.

    Parameters
    ----------
    path : str
        File with lines ``<no> A( n, m) <value> <axis>`` or ``B(...)`` and ``<r0> m = R0``.

    Returns
    -------
    (coef_sin, coef_cos, coef_z, r0, dropped)
        Coefficients as :func:`gradwarp` takes them, r0 in metres as the file gives it, and
        the non-zero terms the series has no place for.

    Examples
    --------
    >>> import os, tempfile, mrkit
    >>> path = os.path.join(tempfile.mkdtemp(), "coil.coef")
    >>> _ = open(path, "w").write("0.25 m = R0\n1 A( 1, 1) 1.0 x\n2 B( 1, 1) 1.0 y\n3 A( 1, 0) 1.0 z\n")
    >>> cs, cc, cz, r0, dropped = mrkit.gradfile(path)
    >>> cs.shape, cz.shape, r0, float(cc[1, 1]), dropped
    ((14, 12), (17, 1), 0.25, 1.0, [])
    """
    coef_sin, coef_cos, coef_z, r0, dropped = call("gradfile", path)
    return coef_sin, coef_cos, coef_z, float(np.asarray(r0).ravel()[0]), list(dropped)


def _info(rest):
    """The outputs after the image as one dict."""
    info = {}
    for value in rest:
        if isinstance(value, dict):
            info.update(value)
        elif value is not None:
            info["status"] = float(np.asarray(value).ravel()[0])
    return info


def homodyne_filter(kspace, kx=None, ky=None, kz=None, *, threads=None):
    """Homodyne weighting of partial-Fourier k-space and its symmetric centre block.

    Parameters
    ----------
    kspace : array_like, real or complex floating
        Centred k-space (coordinate 0 at index ``n // 2``); axes 3 and up are volumes.
    kx, ky, kz : (first, last), optional
        First and last sampled k-space coordinate of the axis, counted from the centre, or
        None for an axis not to filter. Only ranges that miss part of the low side with a
        sampled fraction from 0.55 to below 1 filter; others leave the axis alone.
    threads : int, optional
        OpenMP threads for this call.

    Returns
    -------
    low : numpy.ndarray
        complex64 centre block, ``2 * |first| + 1`` samples along each filtered axis.
    weighted : numpy.ndarray
        The k-space weighted with 0 up to ``first``, rising parabolically through 1 at the
        centre to 2 at ``-first`` and 2 beyond (geometric mean over filtered axes).

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> k = np.ones((16, 16), np.complex64)
    >>> low, weighted = mrkit.homodyne_filter(k, ky=(-4, 7))
    >>> low.shape, weighted[0, 8].real, weighted[0, 15].real
    ((16, 9), 1.0, 2.0)
    """
    return tuple(_mrkit.homodyne_filter(kspace, kx, ky, kz, _threads(threads)))


def homodyne_multiply(image, low, *, threads=None):
    """Remove the low-resolution phase and keep the real part: ``real(image * conj(L)) / |L|``.

    Parameters
    ----------
    image : array_like, real or complex floating
        Image of the weighted k-space.
    low : array_like, real or complex floating
        Low-resolution image with as many axes; of another size it is linearly interpolated
        onto the image grid (axes 3 and up must then agree).
    threads : int, optional
        OpenMP threads for this call.

    Returns
    -------
    numpy.ndarray
        float32, the shape of ``image``.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> mrkit.homodyne_multiply(np.array([[2j, -3.0]]), np.array([[1j, 1.0]]))
    array([[ 2., -3.]], dtype=float32)
    """
    return _mrkit.homodyne_multiply(image, low, _threads(threads))


_AXIS_NAMES = ("kx", "ky", "kz")


def _ifftc(x, axes):
    for d in axes:
        x = np.fft.fftshift(np.fft.ifft(np.fft.ifftshift(x, axes=d), axis=d), axes=d)
    return x


def homodyne_recon(kspace, kx=None, ky=None, kz=None, *, threads=None):
    """Homodyne reconstruction of partial-Fourier k-space.

    :func:`homodyne_filter` weights the data and gives its centre block, the block is
    zero-padded back in place, both are transformed with a centred inverse FFT and
    :func:`homodyne_multiply` removes the low-resolution phase.

    Parameters
    ----------
    kspace : array_like, real or complex floating
        Centred k-space (coordinate 0 at index ``n // 2``), unsampled lines zero; axes 3 and
        up are volumes.
    kx, ky, kz : (first, last), optional
        Sampled range of the axis counted from the centre, or None for a fully sampled axis.
        A range must miss part of the low side, start below the centre and sample 0.55 to
        below 1 of the symmetric extent.
    threads : int, optional
        OpenMP threads for the mrkit calls.

    Returns
    -------
    numpy.ndarray
        Real float32 image: the magnitude with the sign of the real part after phase removal.

    Examples
    --------
    >>> import numpy as np, mrkit
    >>> x, y = np.meshgrid(np.arange(64) - 32, np.arange(64) - 32, indexing="ij")
    >>> truth = (x**2 + y**2 < 400) * np.exp(0.5j * np.pi * x / 64)
    >>> k = np.fft.fftshift(np.fft.fft2(np.fft.ifftshift(truth)))
    >>> k[:, :24] = 0                      # ky from -32 to -9 not sampled
    >>> img = mrkit.homodyne_recon(k, ky=(-8, 31))
    >>> bool(np.linalg.norm(img - abs(truth)) / np.linalg.norm(truth) < 0.05)
    True
    """
    k = np.asarray(kspace)
    ranges = (kx, ky, kz)
    axes = range(min(3, max(k.ndim, 2)))
    for d in axes:
        r = ranges[d]
        if r is not None and np.size(r) == 2:
            first, last = np.asarray(r, dtype=float).ravel()
            if abs(first + last) > 1 and np.fix(first) >= 0:
                raise ValueError(
                    f"homodyne_recon: the {_AXIS_NAMES[d]}-range must start below the k-space centre")
    low, weighted = homodyne_filter(k, kx, ky, kz, threads=threads)

    # The centre block sits symmetrically about the centre of every filtered axis.
    place = [slice(None)] * weighted.ndim
    for d in axes:
        n, nb = weighted.shape[d], low.shape[d]
        if nb == n:
            continue
        if nb == 1:
            first, last = np.asarray(ranges[d], dtype=float).ravel()
            raise ValueError(f"homodyne_recon: the filter does not accept the "
                             f"{_AXIS_NAMES[d]}-range [{first:g} {last:g}]")
        c = n // 2
        place[d] = slice(c - (nb - 1) // 2, c + (nb - 1) // 2 + 1)
    padded = np.zeros(weighted.shape, np.complex64)
    padded[tuple(place)] = low

    axes = [d for d in axes if d < weighted.ndim]
    image = _ifftc(weighted, axes).astype(np.complex64)
    low_image = _ifftc(padded, axes).astype(np.complex64)
    img = homodyne_multiply(image, low_image, threads=threads)
    # Where the low-resolution image is exactly zero its phase is undefined: keep the real part.
    undefined = low_image == 0
    img[undefined] = image.real[undefined]
    return img
