function result = bench_gateway(builddir)
  % RESULT = BENCH_GATEWAY(BUILDDIR) times mrkit calls in Octave against the library's own time
  % for the same work (BUILDDIR/bench/bench_gateway, Google Benchmark) and against one copy of
  % the call's inputs and outputs as Octave makes it (a write to a shared array). The gateway
  % keeps its promise where "added" (gateway minus library) stays within "one copy": ratio
  % <= 1. Every figure is the fastest of 15 single calls, the one least disturbed by other work
  % on the machine. Run with the same thread count for both, e.g. from the source tree:
  %   OMP_NUM_THREADS=2 octave-cli --eval "addpath('build/mex', 'bench'); bench_gateway('build')"
  exe = fullfile(builddir, "bench", "bench_gateway");
  [status, json] = system([exe " --benchmark_format=json 2>/dev/null"]);
  assert(status == 0, "bench_gateway failed: %s", exe);
  library = struct();
  for b = jsondecode(json).benchmarks.'
    if iscell(b)
      b = b{1};
    end
    name = regexp(b.run_name, '^library/(\w+)', 'tokens', 'once'){1};
    if ! strcmp(b.run_type, "iteration")
      continue;  % mean, median, stddev, cv
    end
    if ! isfield(library, name) || b.real_time < library.(name)
      library.(name) = b.real_time;  % ms
    end
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

  printf("\n%-13s %11s %11s %11s %11s %13s\n", "command", "library ms", "gateway ms", ...
         "added ms", "one copy ms", "added / copy");
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
    result(i).library = library.(calls{i, 1});
    result(i).gateway = min(t);
    result(i).copy = copy_time([calls{i, 3}(:); outputs(:)]);
    added = result(i).gateway - result(i).library;
    result(i).ratio = added / result(i).copy;
    printf("%-13s %11.2f %11.2f %11.2f %11.2f %13.2f\n", calls{i, 1}, result(i).library, ...
           result(i).gateway, added, result(i).copy, result(i).ratio);
  end
end

function out = gradwarp(p, coefSin, coefZ)
  out = cell(1, 3);
  [out{:}] = mrkit("gradwarp", p{:}, coefSin, coefSin, coefZ, 250);
end

function ms = copy_time(arrays)
  % One copy of each array as Octave makes one: the first write to an array that shares its
  % data with another copies it.
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
    ms += min(t);
  end
end
