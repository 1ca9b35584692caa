function survival_case(name)
  % Runs one call that once ended or hung the host and ends Octave with status 0 only if the
  % call came back, with the error message expected (or none) and in the time given. ctest
  % starts each case in its own Octave process, some under an address-space limit.
  folded = complex(ones(8, 1, 1, 3, "single"));
  sens = complex(ones(8, 8, 1, 3, "single"));
  seconds = 20;
  switch name
    case "sense_factor_beyond_coils"   % scratch of positions x positions inside the region
      call = @() mrkit("sense", folded, sens, [8 100000]);
      expected = "^mrkit:sense: fullSize";
    case "sense_slow_factor"           % cubic in the reduction factor, all NaN after minutes
      call = @() mrkit("sense", folded, sens, [8 1000]);
      expected = "^mrkit:sense: fullSize";
    case "homodyne_multiply_empty"     % per-thread rows of 2^29 floats
      call = @() homodyne("multiply", zeros(2^29, 0, "single"), zeros(2^29, 0, "single"));
      expected = "";
    case "homodyne_multiply_empty_copy"
      call = @() assert(size(homodyne("multiply", zeros(2^29, 0, "single"), ...
                                      zeros(2^29, 0, "single"))), [2^29 0]);
      expected = "";
    case "homodyne_filter_empty"       % weights along an axis of an empty array
      call = @() homodyne("filter", zeros(1, 0, 2^29, "single"), [], [], [-10 100]);
      expected = "";
    case "fftshift_empty"              % parked runs of 2^30 floats per thread
      call = @() assert(size(mrkit("fftshift", zeros(2^31 - 1, 0, "single"), 1)), [2^31-1 0]);
      expected = "";
    case "ringing_empty"               % window tables of an empty dimension
      call = @() assert(size(mrkit("ringing", zeros(2^28, 0, "single"), 0.5, 4)), [2^28 0]);
      expected = "";
    case "zeropad_output_too_large"
      call = @() mrkit("zeropad", complex(ones(2, 2, "single")), [46340 46340]);
      expected = "^mrkit:zeropad: not enough memory for a 46340 x 46340 complex output \\(16 GB\\)";
    case "command_of_64_characters"
      call = @() mrkit(repmat("x", 1, 64));
      expected = ["'" repmat("x", 1, 64) "'"];
    case "option_of_32_characters"
      call = @() mrkit("sense", folded, sens, [8 8], repmat("q", 1, 32), 1);
      expected = ["^mrkit:sense: .*'" repmat("q", 1, 32) "'"];
    case "size_argument_of_2e28_elements"
      dims = zeros(1, 2^28);
      call = @() mrkit("fftshift", single(1), dims);
      expected = "^mrkit:fftshift: dim must have 1 element";
      seconds = 3;
    case "gradwarp_r0_infinite_as_single"
      call = @() gradwarp_call(1e39, 1);
      expected = "^mrkit:gradwarp: r0 must be finite";
    case "gradwarp_coefficient_infinite_as_single"
      call = @() gradwarp_call(250, 1e39);
      expected = "^mrkit:gradwarp: coefCos must be finite";
    otherwise
      error("no case %s", name);
  end
  message = "";
  start = tic();
  try
    call();
  catch err
    message = err.message;
  end
  elapsed = toc(start);
  passed = ((isempty(expected) && isempty(message))
            || (! isempty(expected) && ! isempty(regexp(message, expected, "once"))));
  printf("%s: %s after %.2f s (%s)\n", name, ifelse_text(passed, "passed", "FAILED"), elapsed,
         ifelse_text(isempty(message), "no error", message));
  if (elapsed > seconds)
    printf("%s: took longer than %g s\n", name, seconds);
    passed = false;
  end
  exit(double(! passed));
end

function gradwarp_call(r0, c22)
  p = single([10 20 30]);
  cs = zeros(14, 12);
  cc = zeros(14, 12);
  cz = zeros(17, 1);
  cs(2, 2) = 1;
  cc(2, 2) = c22;
  cz(2) = 1;
  mrkit("gradwarp", p, p, p, cs, cc, cz, r0);
end

function t = ifelse_text(c, a, b)
  if (c)
    t = a;
  else
    t = b;
  end
end
