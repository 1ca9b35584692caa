function survival_case(name)
  % Runs one homodyne call that once ended the host (scratch sized by a dimension of an array
  % without elements) and ends Octave with status 0 only if the call came back at once and
  % without error. ctest starts each case in its own Octave process, under an address-space
  % limit. (The mrkit cases are in test_mrkit_bounds.m.)
  empty = zeros(2^29, 0, "single");
  switch name
    case "homodyne_multiply_empty"     % per-thread rows of 2^29 floats
      call = @() homodyne("multiply", empty, empty);
    case "homodyne_multiply_empty_copy"
      call = @() assert(size(homodyne("multiply", empty, empty)), [2^29 0]);
    case "homodyne_multiply_empty_interpolated"  % sample positions along the empty array
      call = @() homodyne("multiply", empty, ones(4, 1, "single"));
    case "homodyne_filter_empty"       % weights along an axis of an empty array
      call = @() homodyne("filter", zeros(1, 0, 2^29, "single"), [], [], [-10 100]);
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
  passed = isempty(message) && elapsed < 5;
  printf("%s: %s after %.2f s (%s)\n", name, ifelse_text(passed, "passed", "FAILED"), elapsed,
         ifelse_text(isempty(message), "no error", message));
  exit(double(! passed));
end

function t = ifelse_text(c, a, b)
  if (c)
    t = a;
  else
    t = b;
  end
end
