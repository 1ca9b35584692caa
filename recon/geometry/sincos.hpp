// Many single-precision sine/cosine pairs at once, with exactly the bits the host's sincosf
// gives. The geometry series needs eleven pairs per point, and one libm call per pair was a
// fifth of its time.
#pragma once

namespace mrkit::geometry {

// sine[i], cosine[i] = sincosf(angle[i]) for i < count, bit for bit.
void sincos_many(const float* angle, int count, float* sine, float* cosine);

// Whether sincos_many runs its four-lane path on this host; false means it calls sincosf.
bool sincos_many_is_vectorised();

}  // namespace mrkit::geometry
