function crosshost_run(dir)
  % Runs the calls listed in DIR/cases.json through the MEX modules and writes every output
  % (out_<case>_<k>.bin) or the error message (err_<case>.txt) beside them.
  cases = jsondecode(fileread(fullfile(dir, "cases.json")));
  for i = 1:numel(cases)
    c = item(cases, i);
    args = cell(1, numel(c.args));
    for j = 1:numel(c.args)
      a = item(c.args, j);
      switch a.kind
        case "file"
          args{j} = read_raw(fullfile(dir, a.value));
        case "text"
          args{j} = a.value;
        case "empty"
          args{j} = [];
      end
    end
    outs = cell(1, c.nargout);
    try
      [outs{:}] = feval(c.module, c.command, args{:});
      for k = 1:c.nargout
        write_raw(fullfile(dir, sprintf("out_%d_%d.bin", c.id, k - 1)), outs{k});
      end
    catch err
      f = fopen(fullfile(dir, sprintf("err_%d.txt", c.id)), "w");
      fputs(f, err.message);
      fclose(f);
    end
  end
end

function x = item(list, i)
  if iscell(list)
    x = list{i};
  else
    x = list(i);
  end
end

% Raw little-endian file: "MRKT", uint32 class (0 single, 1 double, 3 int32), uint32 complex,
% uint32 rank, uint64 sizes, the real block and the imaginary block, column-major.
function x = read_raw(file)
  f = fopen(file, "r", "ieee-le");
  assert(strcmp(fread(f, 4, "char=>char").', "MRKT"));
  head = fread(f, 3, "uint32");
  dims = fread(f, head(3), "uint64").';
  precision = {"single=>single", "double=>double", "", "int32=>int32"}{head(1) + 1};
  n = prod(dims);
  x = fread(f, n, precision);
  if head(2)
    x = complex(x, fread(f, n, precision));
  end
  fclose(f);
  x = reshape(x, [dims 1 1]);
end

function write_raw(file, x)
  if isa(x, "single")
    cls = 0;
    precision = "single";
  else
    cls = 1;
    precision = "double";
    x = double(x);
  end
  f = fopen(file, "w", "ieee-le");
  fwrite(f, "MRKT", "char");
  fwrite(f, [cls, ~isreal(x), ndims(x)], "uint32");
  fwrite(f, size(x), "uint64");
  fwrite(f, real(x), precision);
  if ~isreal(x)
    fwrite(f, imag(x), precision);
  end
  fclose(f);
end
