% One folder per host: the MEX folder alone holds every .m a user calls beside the MEX files,
% and no folder of the source tree, added before or after it, shadows a MEX file.

%!shared mexdir, root
%! mexdir = fileparts(which("mrkit"));
%! root = fileparts(fileparts(fileparts(file_in_loadpath("test_mex_path.m"))));

%!test
%! % The MEX folder is complete: help files and homodyne_recon.m next to the modules.
%! for f = {"homodyne.m", "mrkit.m", "homodyne_recon.m"}
%!   assert(exist(fullfile(mexdir, f{1}), "file") == 2, f{1});
%! end
%! text = evalc("help homodyne");
%! assert(! isempty(strfind(text, "homodyne('filter'")));
%! % No help-only file exists as an .m file in the sources.
%! for f = {"homodyne.m", "mrkit.m"}
%!   [~, found] = system(sprintf("find '%s/gateway' '%s/examples' -name '%s'", root, root, f{1}));
%!   assert(strtrim(found), "", f{1});
%! end

%!test
%! % Every source folder a user might add, before and after the MEX folder.
%! sources = {fullfile(root, "gateway"), fullfile(root, "gateway", "help"), fullfile(root, "examples")};
%! saved = path();
%! k = single(randn(32, 32));
%! k(:, 1:10) = 0;
%! unwind_protect
%!   for first = {"mex", "sources"}
%!     path(saved);
%!     if strcmp(first{1}, "mex")
%!       addpath(sources{:});
%!       addpath(mexdir);
%!     else
%!       addpath(mexdir);
%!       addpath(sources{:});
%!     end
%!     [low, weighted] = homodyne("filter", k, [], [-6 15], []);
%!     assert(size(weighted), [32 32]);
%!     assert(mrkit("sos", single([3 4]), 2), single(5));
%!     assert(size(homodyne_recon(k, [], [-6 15])), [32 32]);
%!   end
%! unwind_protect_cleanup
%!   path(saved);
%! end_unwind_protect
