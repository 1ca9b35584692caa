function mrkit_expect_error(message, varargin)
  % Calls mrkit(varargin{:}) and asserts that it fails with exactly `message`, under the
  % identifier its command prefix gives ("mrkit:<command>").
  try
    mrkit(varargin{:});
  catch err
    assert(err.message, message);
    assert(err.identifier, regexp(message, "^mrkit:\\w+", "match", "once"));
    return;
  end
  error("no error; expected: %s", message);
end
