function mrkit_expect_error(message, varargin)
  % Calls mrkit(varargin{:}) and asserts that it fails with exactly `message`, under the
  % identifier its command prefix gives ("mrkit:<command>", else "mrkit:command"), with no
  % output assigned and the numeric arguments as they were.
  numeric = @() cellfun(@double, varargin(cellfun(@isnumeric, varargin)), "UniformOutput", false);
  before = numeric();
  out = "untouched";
  try
    out = mrkit(varargin{:});
  catch err
    assert(err.message, message);
    id = regexp(message, "^mrkit:[-\\w]+", "match", "once");
    if isempty(id)
      id = "mrkit:command";
    end
    assert(err.identifier, id);
    assert(out, "untouched");
    assert(isequaln(numeric(), before), "arguments changed by a failed call");
    return;
  end
  error("no error; expected: %s", message);
end
