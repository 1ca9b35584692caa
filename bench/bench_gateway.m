function result = bench_gateway(builddir)
  % RESULT = BENCH_GATEWAY(BUILDDIR) times mrkit calls in Octave against the library's own time
  % for the same work (BUILDDIR/bench/bench_gateway, Google Benchmark) and against one copy of
  % the call's inputs and outputs. "One copy" is the time Octave takes to copy every input and
  % every output array once, each as a write to an array sharing its data makes it (fresh
  % memory included). The gateway keeps its promise where "added" (gateway minus library)
  % stays within one copy: ratio <= 1. Every figure is the median of 15 single calls. Run on
  % an otherwise idle machine with the same thread count for both, e.g. from the source tree:
  %   OMP_NUM_THREADS=2 OMP_WAIT_POLICY=passive octave-cli --no-history \
  %     --eval "addpath('build/mex', 'bench'); bench_gateway('build')"
  exe = fullfile(builddir, "bench", "bench_gateway");
  [status, json] = system([exe " --benchmark_format=json 2>/dev/null"]);
  assert(status == 0, "bench_gateway failed: %s", exe);
  library = struct();  % per command: the 15 single-call times
  for b = jsondecode(json).benchmarks.'
    if iscell(b)
      b = b{1};
    end
    name = regexp(b.run_name, '^library/(\w+)', 'tokens', 'once'){1};
    if ! strcmp(b.run_type, "iteration")
      continue;  % mean, median, stddev, cv
    end
    if ! isfield(library, name)
      library.(name) = [];
    end
    library.(name)(end + 1) = b.real_time;  % ms
  end

  % The same cases as bench_gateway.cpp.
  randn("state", 1);
  c = @(varargin) complex(single(randn(varargin{:})), single(randn(varargin{:})));
  k = c(256, 256, 32);
  kr = single(randn(256, 256, 64));
  small = c(192, 192, 32);
  coils = c(128, 128, 32, 8);
  p = num2cell(80 * single(randn(500, 500, 3)), [1 2]);
  coefSin = zeros(14, 12);
  coefSin([2 4], 2) = [1 -0.04];
  coefZ = zeros(17, 1);
  coefZ([2 4]) = [1 -0.04];
  folded = c(192, 96, 1, 8);
  sens = c(192, 192, 1, 8);
  calls = {"fftshift", @() {mrkit("fftshift", k, 2)}, {k};
           "fftshift_real", @() {mrkit("fftshift", kr, 2)}, {kr};
           "zeropad", @() {mrkit("zeropad", small, [256 256 32])}, {small};
           "ringing", @() {mrkit("ringing", k, [0.5 0.5 0.5], [200 200 32])}, {k};
           "sos", @() {mrkit("sos", coils, 4)}, {coils};
           "pcsos", @() {mrkit("pcsos", coils, 4)}, {coils};
           "gradwarp", @() gradwarp(p, coefSin, coefZ), p;
           "sense", @() {mrkit("sense", folded, sens, [192 192])}, {folded, sens}};

  printf("\nMedian of 15 calls each. added = gateway - library; one copy = Octave copying every\n");
  printf("input and output array of the call once; ratio = added / one copy (<= 1 is the goal).\n");
  printf("\n%-13s %11s %11s %11s %11s %8s\n", "command", "library ms", "gateway ms", ...
         "added ms", "one copy ms", "ratio");
  result = struct("command", calls(:, 1), "library", [], "gateway", [], "copy", [], "ratio", []);
  for i = 1:rows(calls)
    outputs = calls{i, 2}();  % warm-up: loads the module, pages in the inputs
    t = zeros(1, 15);
    for r = 1:numel(t)
      tic;
      y = calls{i, 2}();
      t(r) = 1e3 * toc;
      clear y;
    end
    result(i).library = median(library.(calls{i, 1}));
    result(i).gateway = median(t);
    result(i).copy = copy_time([calls{i, 3}(:); outputs(:)]);
    added = result(i).gateway - result(i).library;
    result(i).ratio = added / result(i).copy;
    printf("%-13s %11.2f %11.2f %11.2f %11.2f %8.2f\n", calls{i, 1}, result(i).library, ...
           result(i).gateway, added, result(i).copy, result(i).ratio);
  end
end

function out = gradwarp(p, coefSin, coefZ)
  out = cell(1, 3);
  [out{:}] = mrkit("gradwarp", p{:}, coefSin, coefSin, coefZ, 250);
end

function ms = copy_time(arrays)
  % One copy of each array as Octave makes one: the first write to an array that shares its
  % data with another copies it into new memory.
  ms = 0;
  for a = arrays.'
    t = zeros(1, 15);
    for r = 1:numel(t)
      b = a{1};
      tic;
      b(1) = 0;
      t(r) = 1e3 * toc;
      clear b;
    end
    ms += median(t);
  end
end
