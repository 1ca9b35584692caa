function result = bench_gateway(builddir)
  % RESULT = BENCH_GATEWAY(BUILDDIR) times mrkit calls in Octave and compares each with the
  % library's own time and with one copy of the call's inputs and outputs, both measured by
  % BUILDDIR/bench/bench_gateway (Google Benchmark). Each figure is the fastest of 7 runs, the
  % one least disturbed by other work on the machine. The gateway keeps its promise where
  % "added" stays within "one copy". Run with the same thread count for both, e.g. from the
  % source tree:
  %   OMP_NUM_THREADS=2 octave-cli --eval "addpath('build/mex', 'bench'); bench_gateway('build')"
  exe = fullfile(builddir, "bench", "bench_gateway");
  [status, json] = system([exe " --benchmark_format=json --benchmark_repetitions=7 2>/dev/null"]);
  assert(status == 0, "bench_gateway failed: %s", exe);
  native = struct();
  for b = jsondecode(json).benchmarks.'
    if iscell(b)
      b = b{1};
    end
    if strcmp(b.run_type, "iteration")
      name = strrep(regexprep(b.run_name, "/real_time$", ""), "/", "_");
      if ! isfield(native, name) || b.real_time < native.(name)
        native.(name) = b.real_time;  % ms
      end
    end
  end

  randn("state", 1);
  c = @(varargin) complex(single(randn(varargin{:})), single(randn(varargin{:})));
  k = c(256, 256, 32);
  small = c(192, 192, 32);
  coils = c(128, 128, 32, 8);
  pts = 80 * single(randn(500, 500, 3));
  coefSin = zeros(14, 12);
  coefSin([2 4], 2) = [1 -0.04];
  coefZ = zeros(17, 1);
  coefZ([2 4]) = [1 -0.04];
  folded = c(192, 96, 1, 8);
  sens = c(192, 192, 1, 8);
  calls = {"fftshift", @() mrkit("fftshift", k, 2);
           "zeropad", @() mrkit("zeropad", small, [256 256 32]);
           "ringing", @() mrkit("ringing", k, [0.5 0.5 0.5], [200 200 32]);
           "sos", @() mrkit("sos", coils, 4);
           "pcsos", @() mrkit("pcsos", coils, 4);
           "gradwarp", @() gradwarp(pts, coefSin, coefZ);
           "sense", @() mrkit("sense", folded, sens, [192 192])};

  printf("\n%-9s %11s %11s %11s %11s %13s\n", "command", "library ms", "one copy ms", ...
         "gateway ms", "added ms", "added / copy");
  result = struct("command", calls(:, 1), "library", [], "copy", [], "gateway", [], "ratio", []);
  for i = 1:rows(calls)
    name = calls{i, 1};
    fn = calls{i, 2};
    fn();  % warm-up: loads the module, pages in the inputs
    t = zeros(1, 7);  % fastest of 7, as for the library
    for r = 1:numel(t)
      tic;
      y = fn();
      t(r) = 1e3 * toc;
      clear y;
    end
    result(i).library = native.(["library_" name]);
    result(i).copy = native.(["copy_" name]);
    result(i).gateway = min(t);
    added = result(i).gateway - result(i).library;
    result(i).ratio = added / result(i).copy;
    printf("%-9s %11.2f %11.2f %11.2f %11.2f %13.2f\n", name, result(i).library, result(i).copy, ...
           result(i).gateway, added, result(i).ratio);
  end
end

function xo = gradwarp(pts, coefSin, coefZ)
  [xo, yo, zo] = mrkit("gradwarp", pts(:, :, 1), pts(:, :, 2), pts(:, :, 3), coefSin, ...
                       coefSin, coefZ, 250);
end
