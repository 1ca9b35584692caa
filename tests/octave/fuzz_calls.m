function counts = fuzz_calls(seed, calls)
  % Runs `calls` randomised calls of homodyne and mrkit, about a third of them valid and the
  % rest with one argument broken (class, complexity, shape, size, value, count, command or
  % option name). Asserts that valid calls succeed, that every error of mrkit names its command
  % and an argument, that every error of homodyne is one of its own messages, and that no call
  % changes an input. Returns [valid calls, calls that failed as they should, other calls].
  % Mutated calls may warn (non-finite results, a prior without noise): not what is judged.
  state = warning("off", "all");
  restore = onCleanup(@() warning(state));
  rand("twister", seed);
  randn("twister", seed);
  counts = [0 0 0];
  commands = [{"filter", "multiply"}, mrkit_commands()];
  for k = 1:calls
    cmd = commands{randi(numel(commands))};
    [args, nout] = valid_call(cmd);
    module = "mrkit";
    if (any(strcmp(cmd, {"filter", "multiply"})))
      module = "homodyne";
    end
    mutated = rand() < 0.65;
    if mutated
      [args, nout] = mutate(module, args, nout);
    end
    before = cellfun(@deep_copy, args, "UniformOutput", false);
    [ok, msg] = run_call(module, args, nout);
    for i = 1:numel(args)
      if (! isempty(before{i}))
        assert(isequaln(deep_copy(args{i}), before{i}),
               "seed %d call %d: %s changed argument %d", seed, k, cmd, i + 1);
      end
    end
    if (! ok)
      check_message(module, cmd, args, msg, seed, k);
    end
    if (! mutated)
      assert(ok, "seed %d call %d: valid %s failed: %s", seed, k, cmd, msg);
      counts(1) += 1;
    elseif (ok)
      counts(3) += 1;
    else
      counts(2) += 1;
    end
  end
end

function [ok, msg] = run_call(module, args, nout)
  ok = true;
  msg = "";
  out = cell(1, nout);
  try
    if (strcmp(module, "homodyne"))
      [out{:}] = homodyne(args{:});
    else
      [out{:}] = mrkit(args{:});
    end
  catch err
    ok = false;
    msg = err.message;
  end
end

function c = mrkit_commands()
  c = {"sense", "coilmaps", "noisecov", "sos", "pcsos", "fftshift", "ifftshift", "zeropad", ...
       "ringing", "gradwarp", "unwarp", "gradfile", "-spans"};
end

% The arguments of one valid call (command string first) and the outputs to ask for.
function [args, nout] = valid_call(cmd)
  sz = [randi([2 9]) randi([2 9]) randi([1 4])];
  cplx = rand() < 0.6;
  nout = 1;
  switch cmd
    case "filter"
      d = data([sz randi([1 3])], cplx);
      r = {[], [], []};
      for a = 1:2
        if (rand() < 0.7 && sz(a) >= 6)
          r{a} = [-floor(sz(a) / 4), ceil(sz(a) / 2) - 1];
        end
      end
      args = {"filter", d, r{:}};
      nout = 2;
    case "multiply"
      d = data([sz randi([1 3])], cplx);
      lowSize = size(d);
      if (rand() < 0.5)
        lowSize(1:2) = max(1, floor(lowSize(1:2) / 2));
      end
      args = {"multiply", d, data(lowSize, rand() < 0.7)};
    case "sense"
      coils = randi([2 4]);
      nx = randi([3 8]);
      ny = randi([4 12]);
      nyf = randi([ceil(ny / coils), ny]);  % no more aliased positions than coils
      folded = data([nx nyf 1 coils randi([1 2])], true);
      sens = data([nx ny 1 coils], rand() < 0.8);
      args = {"sense", folded, sens, [nx ny]};
      if (rand() < 0.3)
        psi = eye(coils, "single") + single(0.1);
        args(end+1:end+2) = {"noise", psi};
      end
      if (rand() < 0.3)
        args(end+1:end+4) = {"reference", data([nx ny], false), "regularization", ...
                             abs(data([nx ny], false))};
      end
      if (rand() < 0.2)
        args(end+1:end+2) = {"regScale", 2};
      end
      if (rand() < 0.3)
        modes = {"voxel", "exact"};
        args(end+1:end+2) = {"validity", modes{randi(2)}};
      end
      nout = randi([1 3]);
    case "coilmaps"
      coils = randi([2 4]);
      k = data([sz(1:2) + 2, 1, coils], true);
      args = {cmd, k, [randi([2 size(k, 1)]) randi([2 size(k, 2)])]};
      if (rand() < 0.3)
        args(end+1:end+2) = {"threshold", rand() * 0.5};
      end
    case "noisecov"
      coils = randi([1 6]);
      args = {cmd, data([randi([coils 30]) coils], cplx), 2};
    case "unwarp"
      % 4 mm voxels around the isocentre; a mild field.
      affine = [4 0 0 -2 * sz(1); 0 4 0 -2 * sz(2); 0 0 4 -2 * sz(3); 0 0 0 1];
      [cs, cc, cz] = mild_field();
      args = {cmd, data(sz, cplx), affine, cs, cc, cz, 250};
      options = {"interp", "cubic", "jacobian", false, "direction", "warp"};
      pick = randi([0 3]);
      if (pick > 0)
        args(end+1:end+2) = options(2 * pick - 1:2 * pick);
      end
      nout = randi([1 2]);
    case "gradfile"
      args = {cmd, coefficient_file()};
      nout = randi([1 5]);
    case {"sos", "pcsos"}
      x = data([sz randi([1 3])], cplx);
      args = {cmd, x, randi([1 ndims(x)])};
    case {"fftshift", "ifftshift"}
      args = {cmd, data([sz randi([1 2])], cplx), randi([1 3])};
    case "zeropad"
      x = data(sz, cplx);
      args = {cmd, x, size(x)(1:2) + randi([0 3], 1, 2)};
    case "ringing"
      args = {cmd, data(sz, cplx), rand(1, 3) * 0.9, randi([1 8], 1, 3)};
    case "-spans"  % the benchmark's timing of the last call
      args = {cmd};
    case "gradwarp"
      n = randi([1 20]);
      p = @() single(randn(1, n) * 100);
      [cs, cc, cz] = mild_field();
      args = {cmd, p(), p(), p(), cs, cc, cz, 250};
      nout = 3;
  end
end

% Linear terms of one and a few small higher ones.
function [cs, cc, cz] = mild_field()
  [cs, cc] = deal(zeros(14, 12));
  cz = [0; 1; zeros(15, 1)];
  cs(2, 2) = cc(2, 2) = 1;
  cs(3:5, 1:3) = randn(3) * 0.01;
end

% A valid coefficient file, written once per Octave process.
function file = coefficient_file()
  persistent name
  if (isempty(name))
    name = [tempname() ".coef"];
    fid = fopen(name, "w");
    fprintf(fid, "# fuzz coil\n 0.25 m = R0\n  1 A( 1, 1) 1.0 x\n  2 B( 1, 1) 1.0 y\n");
    fprintf(fid, "  3 A( 1, 0) 1.0 z\n  4 A( 3, 1) -0.01 x\n  5 A( 2, 1) 0.5 y\n");
    fclose(fid);
  end
  file = name;
end

function x = data(sz, cplx)
  x = single(randn(sz));
  if (cplx)
    x = complex(x, single(randn(sz)));
  end
end

% One argument (or the command, or the count) broken.
function [args, nout] = mutate(module, args, nout)
  what = randi(10);
  if (numel(args) < 2)
    what = 6 + (rand() < 0.5);  % nothing to break but the counts
  end
  if (what == 7 && strcmp(module, "homodyne"))
    what = 6;  % an output homodyne does not set is the host's complaint, not the module's
  end
  i = randi([min(2, numel(args)) numel(args)]);
  a = args{i};
  switch what
    case 1  % another class
      kinds = {@double, @int16, @uint8, @logical, @(v) "abc", @(v) {v}, @(v) struct("v", 1), ...
               @(v) @sin};
      f = kinds{randi(numel(kinds))};
      try
        args{i} = f(a);
      catch
        args{i} = "abc";
      end
    case 2  % complexity
      if (isnumeric(a) && ! iscomplex(a))
        args{i} = complex(a, a);
      elseif (isnumeric(a))
        args{i} = real(a);
      end
    case 3  % empty, possibly with a huge dimension
      shapes = {[0 0], [0 3], [3 0], [2^randi([20 29]) 0], [1 0 2^randi([20 28])]};
      args{i} = zeros(shapes{randi(numel(shapes))}, class_of(a));
    case 4  % another shape
      if (isnumeric(a) && numel(a) > 1)
        if (rand() < 0.5)
          args{i} = a(1:end-1);
        else
          args{i} = repmat(a, [1 1 1 1 1 2]);
        end
      else
        args{i} = [a a];
      end
    case 5  % values no size, dimension, scalar or coefficient may take
      bad = [NaN Inf -Inf -1 0 0.5 2^31 2^53 1e39 -1e39 1e-46];
      if (isnumeric(a) && ! isempty(a))
        v = a;
        v(randi(numel(v))) = bad(randi(numel(bad)));
        args{i} = v;
      else
        args{i} = bad(randi(numel(bad)));
      end
    case 6  % one argument too many or too few
      if (rand() < 0.5 || numel(args) < 3)
        args{end + 1} = single(1);
      else
        args(end) = [];
      end
    case 7  % too many outputs
      nout += 1;
    case 8  % a command that is no command
      cmds = {upper(args{1}), [args{1} " "], "", repmat("x", 1, 64), repmat("sense", 1, 40), ...
              single(3)};
      args{1} = cmds{randi(numel(cmds))};
      nout = 0;
    case 9  % option names of any length and case (sense), else a sparse argument
      if (strcmp(args{1}, "sense"))
        opts = {"NOISE", "regscale", "", repmat("q", 1, 32), repmat("noise", 1, 13), "x"};
        args(end+1:end+2) = {opts{randi(numel(opts))}, single(1)};
      elseif (isnumeric(a) && ndims(a) == 2 && ! isempty(a))
        args{i} = sparse(double(a));
      end
    case 10  % data as a huge-valued or denormal single array
      if (isa(a, "single"))
        args{i} = a * single(1e30);
      end
  end
end

function c = class_of(a)
  c = "single";
  if (isnumeric(a) && ! isa(a, "single"))
    c = "double";
  end
end

% A copy that shares no storage with the argument (a write into the argument's data would
% otherwise show in it too); empty for what cannot be compared that way.
function c = deep_copy(a)
  c = [];
  if ((isnumeric(a) && ! issparse(a)) || ischar(a) || islogical(a))
    c = {class(a), double(a)};
  end
end

function check_message(module, cmd, args, msg, seed, k)
  where = sprintf("seed %d call %d", seed, k);
  if (strcmp(module, "homodyne"))
    % Octave's error call puts the module's name before the text.
    assert(any(strcmp(msg, cellfun(@(t) ["homodyne: " t], homodyne_messages(), "UniformOutput", false))),
           "%s: homodyne %s: message not of the module: %s", where, cmd, msg);
    return;
  end
  if (! ischar(args{1}) || ! any(strcmp(args{1}, mrkit_commands())))
    assert(strncmp(msg, "mrkit: ", 7), "%s: unknown command answered with: %s", where, msg);
    if (ischar(args{1}))
      assert(! isempty(strfind(msg, ["'" args{1} "'"])), "%s: command not shown whole: %s",
             where, msg);
    end
    return;
  end
  prefix = ["mrkit:" cmd ": "];
  assert(strncmp(msg, prefix, numel(prefix)), "%s: message without its command: %s", where, msg);
  argNames = {"x", "y", "z", "dim", "coilDim", "newSize", "strength", "width", "coefSin", ...
              "coefCos", "coefZ", "r0", "folded", "sensitivities", "fullSize", "noise", ...
              "reference", "regularization", "regScale", "validity", "kspace", "calibSize", ...
              "threshold", "window", "samples", "vol", "affine", "jacobian", "interp", ...
              "direction", "path", "options?", "usage", "inputs", "outputs"};
  % A coefficient file's own faults are told by its name (and line).
  named = strcmp(cmd, "gradfile") && numel(args) > 1 && ischar(args{2}) && ...
          ! isempty(strfind(msg, args{2}));
  for j = 1:numel(argNames)
    named = named || ! isempty(regexp(msg, ["\\<" argNames{j} "\\>"], "once"));
  end
  assert(named, "%s: message names no argument: %s", where, msg);
end

function m = homodyne_messages()
  m = {"The first input must be a string describing the functionality.", ...
       "There must be at least 5 inputs.", "There must be at least 3 inputs.", ...
       "Too many input arguments.", "Data must be of type single.", "Data cannot be empty.", ...
       "LowRes must be of type single.", "The low resolution data cannot be empty.", ...
       "The data must have the same number of dimensions than the low resolution data", ...
       "Data is too large for 32-bit indices.", ...
       "The low resolution data must have no empty dimension and the data's sizes from the fourth dimension on."};
  axes = {"kx", "ky", "kz"};
  for a = 1:3
    m(end+1:end+5) = {[axes{a} "-range must be of type double."], ...
                      [axes{a} "-range must be real valued."], ...
                      ["The " axes{a} "-range must be 1 dimensional vector."], ...
                      ["The " axes{a} "-range coordinates must be 1 dimensional vector."], ...
                      ["The " axes{a} "-range must be of length 2."]};
  end
end
