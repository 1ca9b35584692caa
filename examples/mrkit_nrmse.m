function e = mrkit_nrmse(x, ref)
  % MRKIT_NRMSE  Normalised root-mean-square error norm(x - ref) / norm(ref), in double.
  d = double(x(:)) - double(ref(:));
  e = sqrt(sum(abs(d).^2) / sum(abs(double(ref(:))).^2));
end
