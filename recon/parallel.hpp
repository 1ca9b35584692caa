// The one work split every parallel loop of mrkit uses: a single OpenMP region per call, the
// iterations cut into contiguous blocks of ceil(n / T), thread t taking
// [t * block, min(n, (t + 1) * block)). Results never depend on T because every output element
// is owned by exactly one iteration.
//
// Nothing may leave an OpenMP region by an exception (the runtime would end the process), so
// the helper catches whatever a thread throws (std::bad_alloc above all), lets the other threads
// stop at their next interrupted() check, and rethrows the first failure on the calling thread
// once the region has joined. The same flag carries the host's request to stop
// (recon/interrupt.hpp).
#pragma once

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <vector>

#include "recon/interrupt.hpp"

namespace mrkit {

// Block of iterations [begin, end) owned by thread t of T; empty when t runs past n.
inline void static_block(int n, int t, int T, int& begin, int& end) {
    const int64_t block = (static_cast<int64_t>(n) + T - 1) / T;
    const int64_t b = std::min<int64_t>(n, t * block);
    begin = static_cast<int>(b);
    end = static_cast<int>(std::min<int64_t>(n, b + block));
}

namespace detail {

// What the threads of one region share: the stop flag, the first failure and the poll of the
// thread that opened the region (thread 0 of its team).
class Region {
public:
    explicit Region(const Poll& poll) : poll_(poll) {}

    bool stop_requested(bool callingThread) {
        if (callingThread && poll_.poll && !stop_.load(std::memory_order_relaxed) &&
            poll_.poll(poll_.context))
            stop_.store(true, std::memory_order_relaxed);
        return stop_.load(std::memory_order_relaxed);
    }

    void fail(std::exception_ptr e) noexcept {
        if (!failed_.test_and_set()) error_ = std::move(e);
        stop_.store(true, std::memory_order_relaxed);
    }

    // On the calling thread after the region's closing barrier.
    void finish() {
        if (error_) std::rethrow_exception(error_);
        if (stop_.load(std::memory_order_relaxed)) throw Interrupted();
    }

private:
    const Poll poll_;
    std::atomic<bool> stop_{false};
    std::atomic_flag failed_ = ATOMIC_FLAG_INIT;
    std::exception_ptr error_;
};

inline thread_local Region* currentRegion = nullptr;

}  // namespace detail

// True once the call should stop: inside a region, when the host has asked (polled by thread
// 0 only) or another thread has failed; outside one, when the installed poll says so. Bodies
// check it between volumes or chunks and return early; the helper then throws.
inline bool interrupted() {
    if (detail::Region* r = detail::currentRegion) return r->stop_requested(omp_get_thread_num() == 0);
    const detail::Poll& p = detail::installedPoll;
    return p.poll && p.poll(p.context);
}

// Runs body(begin, end) once on every thread of the team with that thread's block, so a body
// can set up its per-thread scratch once before looping. The region ends with a barrier. A body
// with a barrier of its own must not throw or return before it.
template <class Body>
void parallel_blocks(int n, Body&& body) {
    detail::Region region(detail::installedPoll);
    if (region.stop_requested(true)) throw Interrupted();
#pragma omp parallel
    {
        detail::Region* const outer = detail::currentRegion;
        detail::currentRegion = &region;
        try {
            int begin = 0, end = 0;
            static_block(n, omp_get_thread_num(), omp_get_num_threads(), begin, end);
            body(begin, end);
        } catch (...) {
            region.fail(std::current_exception());
        }
        detail::currentRegion = outer;
    }
    region.finish();
}

// Per-thread scratch of `count` elements (not initialised), allocated on the calling thread
// before a region over n iterations, so that a large request fails there: one slot for each
// thread that can get a non-empty block (never more than n, nor than the next team's size).
// Inside the region, a thread with a non-empty block takes its own with get().
template <class T>
class ThreadScratch {
public:
    ThreadScratch(int n, std::size_t count)
        : slots_(static_cast<std::size_t>(std::max(0, std::min(n, omp_get_max_threads())))) {
        for (std::unique_ptr<T[]>& s : slots_) s.reset(new T[count]);
    }
    T* get() const { return slots_[static_cast<std::size_t>(omp_get_thread_num())].get(); }

private:
    std::vector<std::unique_ptr<T[]>> slots_;
};

}  // namespace mrkit
