function result = bench_gateway(builddir)
  % RESULT = BENCH_GATEWAY(BUILDDIR) times mrkit calls against the library's own time and
  % against one copy of each call's inputs and outputs (Octave copying each array once: b = a;
  % b(1) = 0). After every call mrkit('-spans') tells how long it spent in the library and in
  % the whole command, so "added" (call minus library) is taken per call, free of the library's
  % run-to-run noise, and "host" (call minus command) is Octave's part after the command, where
  % it turns the outputs into its own arrays. The direct library call on the same data
  % (BUILDDIR/bench/bench_gateway) is shown beside the in-call library time as a check. Figures
  % are medians of 21 calls; run on an otherwise idle machine, e.g. from the source tree:
  %   OMP_NUM_THREADS=2 OMP_WAIT_POLICY=passive octave-cli --no-history \
  %     --eval "addpath('build/mex', 'bench'); bench_gateway('build')"
  exe = fullfile(builddir, "bench", "bench_gateway");
  [status, json] = system([exe " --benchmark_format=json 2>/dev/null"]);
  assert(status == 0, "bench_gateway failed: %s", exe);
  ncalls = 21;
  library = struct();  % per command: the single-call times
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

  printf("\nMedians of %d calls (ms). added = gateway - library in call; host = Octave's part\n", ncalls);
  printf("of added, after the command; one copy = Octave copying every input and output array\n");
  printf("of the call once; ratio = added / one copy (<= 1 is the goal).\n");
  printf("\n%-13s %9s %9s %9s %9s %9s %9s %7s\n", "command", "library", "in call", ...
         "gateway", "added", "host", "one copy", "ratio");
  result = struct("command", calls(:, 1), "library", [], "in_call", [], "gateway", [], ...
                  "added", [], "host", [], "copy", [], "ratio", []);
  for i = 1:rows(calls)
    outputs = calls{i, 2}();  % warm-up: loads the module, pages in the inputs
    t = zeros(3, ncalls);  % gateway, library in call, command
    for r = 1:ncalls
      tic;
      y = calls{i, 2}();
      t(1, r) = 1e3 * toc;
      t(2:3, r) = mrkit("-spans");
      clear y;
    end
    row = result(i);
    row.library = median(library.(calls{i, 1}));
    row.in_call = median(t(2, :));
    row.gateway = median(t(1, :));
    row.added = median(t(1, :) - t(2, :));
    row.host = median(t(1, :) - t(3, :));
    row.copy = copy_time([calls{i, 3}(:); outputs(:)]);
    row.ratio = row.added / row.copy;
    printf("%-13s %9.2f %9.2f %9.2f %9.2f %9.2f %9.2f %7.2f\n", row.command, row.library, ...
           row.in_call, row.gateway, row.added, row.host, row.copy, row.ratio);
    result(i) = row;
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
    t = zeros(1, 21);
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
