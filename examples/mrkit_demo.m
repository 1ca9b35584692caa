function mrkit_demo(outdir)
  % MRKIT_DEMO  Runs the mrkit demos on built-in synthetic data.
  %   mrkit_demo(OUTDIR) prints quality tables to the terminal and writes PNG pictures into
  %   OUTDIR (default 'out', created when missing). Needs the built MEX files, gateway/ and
  %   examples/ on the path; scripts/demo.sh sets that up.
  if nargin < 1
    outdir = 'out';
  end
  if ~exist(outdir, 'dir')
    mkdir(outdir);
  end
  demo_homodyne(outdir);
  demo_sense(outdir);
  demo_geometry(outdir);
  demo_coils(outdir);
end
