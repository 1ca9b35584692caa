// Stopping a long library call when its host asks (Ctrl-C in Octave or MATLAB).
//
// A host adapter installs a poll on the thread that calls the library, for the duration of the
// call. The library polls only on that thread: before each of its parallel regions, and inside
// a region on thread 0 (the calling thread) between volumes or chunks, publishing what it found
// to the other threads through one flag. Once the poll says yes, the call ends at the next such
// point by throwing mrkit::Interrupted on the calling thread; the caller's outputs are then
// partly written. Without an installed poll nothing is ever interrupted.
#pragma once

#include <exception>

namespace mrkit {

// Returns true once the host wants the current call to stop. Runs on the installing thread
// only, at most once per volume or chunk: it must be cheap and must not throw.
using InterruptPoll = bool (*)(void* context);

struct Interrupted : std::exception {
    const char* what() const noexcept override { return "interrupted"; }
};

namespace detail {
struct Poll {
    InterruptPoll poll = nullptr;
    void* context = nullptr;
};
inline thread_local Poll installedPoll;
}  // namespace detail

// Installs a poll on this thread until the guard goes out of scope (then the previous one is
// back), e.g. for one MEX call.
class InterruptGuard {
public:
    explicit InterruptGuard(InterruptPoll poll, void* context = nullptr)
        : previous_(detail::installedPoll) {
        detail::installedPoll = {poll, context};
    }
    ~InterruptGuard() { detail::installedPoll = previous_; }
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

private:
    detail::Poll previous_;
};

}  // namespace mrkit
