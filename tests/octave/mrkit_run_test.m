function mrkit_run_test(name)
  % Runs the %!test blocks of one test file and ends Octave with status 0 only if all passed.
  [npass, ntotal] = test(name, "quiet", stdout);
  printf("%s: %d of %d passed\n", name, npass, ntotal);
  exit(double(ntotal == 0 || npass != ntotal));
end
