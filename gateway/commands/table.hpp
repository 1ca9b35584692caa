// The commands' functions, by group; each is registered by one row of table.cpp.
#pragma once

#include "gateway/commands/call.hpp"

namespace mrkit::commands {

constexpr int kAnyRank = 64;  // the toolkit works on any rank

// toolkit.cpp
void fftshift(Call& call);
void ifftshift(Call& call);
void zeropad(Call& call);
void ringing(Call& call);
void sos(Call& call);
void pcsos(Call& call);
// geometry.cpp
void gradwarp(Call& call);
// sense.cpp
void sense(Call& call);
// layer.cpp: the library's and the command's time of this thread's last call, for
// bench/bench_gateway.m
void spans(Call& call);

}  // namespace mrkit::commands
