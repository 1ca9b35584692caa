% Every command gives the same bits with 1 and 3 OpenMP threads as in this process (the test
% runs with 2): results computed in a child Octave with another thread count are compared.

%!test
%! here = mrkit_thread_cases();
%! exe = fullfile(OCTAVE_HOME(), "bin", "octave-cli");
%! for threads = [1 3]
%!   file = [tempname() ".bin"];
%!   unwind_protect
%!     script = sprintf("path('%s'); r = mrkit_thread_cases(); save('-binary', '%s', 'r');", ...
%!                      path(), file);
%!     [status, out] = system(sprintf("OMP_NUM_THREADS=%d '%s' --norc --quiet --no-window-system --eval \"%s\"", ...
%!                                    threads, exe, script));
%!     assert(status, 0, out);
%!     there = load(file).r;
%!   unwind_protect_cleanup
%!     if exist(file, "file")
%!       unlink(file);
%!     end
%!   end_unwind_protect
%!   for name = fieldnames(here).'
%!     assert(isequal(there.(name{1}), here.(name{1})), "%s differs with %d threads", name{1}, threads);
%!   end
%! end
