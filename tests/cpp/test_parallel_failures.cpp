// What leaves a parallel region besides results: a failure on any thread reaches the calling
// thread once, after the region; the host's request to stop is polled on the calling thread
// only and ends the call early; arrays without elements get no scratch sized by their
// dimensions.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <functional>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "gateway/homodyne.hpp"
#include "recon/parallel.hpp"
#include "recon/recon.hpp"
#include "support/bits.hpp"
#include "support/sense_phantom.hpp"
#include "support/split_complex.hpp"
#include "support/threads.hpp"

// The largest single request this program makes, so that a test can see what a call would
// have allocated without needing the memory. ThreadSanitizer's static runtime defines the
// allocation operators itself; there the test that needs them is skipped.
#if defined(__SANITIZE_THREAD__)
#define COUNT_ALLOCATIONS 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define COUNT_ALLOCATIONS 0
#endif
#endif
#ifndef COUNT_ALLOCATIONS
#define COUNT_ALLOCATIONS 1
#endif

namespace {
std::atomic<std::size_t> largestRequest{0};
}  // namespace

#if COUNT_ALLOCATIONS
namespace {
void* allocate(std::size_t n) {
    std::size_t seen = largestRequest.load(std::memory_order_relaxed);
    while (n > seen && !largestRequest.compare_exchange_weak(seen, n)) {
    }
    if (n > (std::size_t(1) << 34)) throw std::bad_alloc();
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t n) {
    return allocate(n);
}
void* operator new[](std::size_t n) {
    return allocate(n);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}
#endif

using namespace mrkit_test;

namespace {

// Counts polls, notes whether any ran off the installing thread, says stop from call `after`.
struct Host {
    std::thread::id owner = std::this_thread::get_id();
    std::atomic<int> polls{0};
    std::atomic<bool> foreign{false};
    int after = INT_MAX;

    static bool poll(void* self) {
        Host& h = *static_cast<Host*>(self);
        if (std::this_thread::get_id() != h.owner) h.foreign = true;
        return ++h.polls >= h.after;
    }
};

}  // namespace

TEST(ParallelFailures, AFailureOnAnyThreadReachesTheCallerOnce) {
    for (int threads : {1, 2, 3}) {
        for (int failing = 0; failing < threads; ++failing) {
            std::atomic<int> finished{0};
            const auto run = [&] {
                mrkit::parallel_blocks(threads, [&](int begin, int) {
                    if (begin == failing) throw std::bad_alloc();
                    finished++;
                });
                return 0;
            };
            EXPECT_THROW(with_threads(threads, run), std::bad_alloc) << threads << " " << failing;
            EXPECT_EQ(finished.load(), threads - 1);
        }
        // Every thread failing: one exception of one of them, whichever came first.
        int caught = 0;
        try {
            with_threads(threads, [&] {
                mrkit::parallel_blocks(threads, [](int begin, int) { throw begin; });
                return 0;
            });
        } catch (int t) {
            EXPECT_GE(t, 0);
            EXPECT_LT(t, threads);
            ++caught;
        }
        EXPECT_EQ(caught, 1);
        // And the next region runs as usual.
        std::atomic<int> sum{0};
        with_threads(threads, [&] {
            mrkit::parallel_blocks(10, [&](int begin, int end) { sum += end - begin; });
            return 0;
        });
        EXPECT_EQ(sum.load(), 10);
    }
}

TEST(ParallelFailures, OtherThreadsStopAtTheirNextCheck) {
    std::atomic<int> done{0};
    const auto run = [&] {
        mrkit::parallel_blocks(2000, [&](int begin, int end) {
            for (int i = begin; i < end && !mrkit::interrupted(); ++i) {
                if (i == 3) throw std::runtime_error("three");
                if (begin > 0) std::this_thread::sleep_for(std::chrono::microseconds(50));
                done++;
            }
        });
        return 0;
    };
    EXPECT_THROW(with_threads(2, run), std::runtime_error);
    EXPECT_LT(done.load(), 1000);
}

TEST(ParallelFailures, HostPollRunsOnTheCallingThreadAndStopsTheCall) {
    Host host;
    host.after = 5;
    std::atomic<int> done{0};
    {
        const mrkit::InterruptGuard guard(&Host::poll, &host);
        const auto run = [&] {
            mrkit::parallel_blocks(3000, [&](int begin, int end) {
                for (int i = begin; i < end && !mrkit::interrupted(); ++i) {
                    std::this_thread::sleep_for(std::chrono::microseconds(20));
                    done++;
                }
            });
            return 0;
        };
        EXPECT_THROW(with_threads(3, run), mrkit::Interrupted);
        // Before the region, then once per iteration of thread 0 until the fifth.
        EXPECT_EQ(host.polls.load(), 5);
        EXPECT_LT(done.load(), 3000);
        EXPECT_FALSE(host.foreign.load());
        // Asked before a region: it does not start.
        bool ran = false;
        EXPECT_THROW(mrkit::parallel_blocks(4, [&](int, int) { ran = true; }), mrkit::Interrupted);
        EXPECT_FALSE(ran);
    }
    // The guard is gone: nothing polls any more.
    const int polls = host.polls.load();
    EXPECT_NO_THROW(mrkit::parallel_blocks(4, [](int, int) { EXPECT_FALSE(mrkit::interrupted()); }));
    EXPECT_EQ(host.polls.load(), polls);
}

// Library calls ask between pieces of work, SENSE also between tiles of its factors and rows of
// its unfolding, not only between passes (three passes alone would poll about six times): each
// polls while it runs, stops at the poll that asks, and keeps its bits when none does.
TEST(ParallelFailures, LibraryCallsStopWhenAskedAndKeepTheirBitsWhenNot) {
    const std::vector<int> dims = {16, 12, 3, 40};
    const SplitComplex x = random_complex(element_count(dims), 17);
    const double s[3] = {0.4, 0.6, 0.2};
    const int w[3] = {11, 9, 3};
    const std::array<int, 3> full{64, 64, 1};
    const sense_phantom::Split img = sense_phantom::make_object(full[0], full[1], full[2]);
    const sense_phantom::Split data = sense_phantom::fold(img, 8, 32, 1);
    const sense_phantom::Split maps = sense_phantom::make_maps(full[0], full[1], full[2], 8);
    struct Case {
        std::function<SplitComplex()> run;
        int minPolls, stopAt;
    };
    const Case cases[] = {
        {[&] {
             SplitComplex v = x;
             MR_ringing_filter(v.re.data(), v.im.data(), 4, dims.data(), s, w);
             return v;
         },
         1, 3},
        {[&] {
             SplitComplex v = x;
             MR_fftshift(v.re.data(), v.im.data(), dims.data(), 4, 2);
             return v;
         },
         1, 3},
        {[&] {
             sense_phantom::Split out = sense_phantom::make_output(data, full);
             sense_phantom::reconstruct(data, maps, full, out);
             return SplitComplex{out.re, out.im};
         },
         20, 12},  // inside the unfolding's rows
    };
    for (const Case& c : cases) {
        const SplitComplex plain = with_threads(2, c.run);
        Host quiet;
        SplitComplex watched;
        {
            const mrkit::InterruptGuard guard(&Host::poll, &quiet);
            watched = with_threads(2, c.run);
        }
        EXPECT_GT(quiet.polls.load(), c.minPolls);
        EXPECT_TRUE(same_bits(plain.re, watched.re));
        EXPECT_TRUE(same_bits(plain.im, watched.im));

        Host impatient;
        impatient.after = c.stopAt;
        const mrkit::InterruptGuard guard(&Host::poll, &impatient);
        EXPECT_THROW(with_threads(2, c.run), mrkit::Interrupted);
        EXPECT_EQ(impatient.polls.load(), c.stopAt);
    }
}

TEST(ParallelFailures, NoScratchSizedByTheDimensionsOfAnEmptyArray) {
    if (!COUNT_ALLOCATIONS) GTEST_SKIP() << "allocations are not counted in this build";
    const int kMiB = 1 << 20;
    float none = 0.0f;
    const auto largest_during = [](auto&& f) {
        largestRequest = 0;
        f();
        return largestRequest.load();
    };
    for (int dim = 1; dim <= 3; ++dim) {
        const int dims[4] = {INT_MAX, 0, 3, 2};
        EXPECT_LT(largest_during([&] { MR_fftshift(&none, &none, dims, 4, dim); }), kMiB) << dim;
        EXPECT_LT(largest_during([&] { MR_ifftshift(&none, nullptr, dims, 2, dim); }), kMiB) << dim;
    }
    const int wide[3] = {1 << 28, 0, 1 << 20};
    const double s[3] = {0.5, 0.5, 0.5};
    const int w[3] = {4, 4, 4};
    EXPECT_LT(largest_during([&] { MR_ringing_filter(&none, &none, 3, wide, s, w); }), kMiB);
    EXPECT_LT(largest_during([&] { MR_ringing_filter(&none, nullptr, 2, wide, s, w); }), kMiB);

    // Same sizes (no interpolation), and a small low-resolution image to interpolate from.
    const int empty[2] = {1 << 29, 0}, low[2] = {4, 1};
    for (const int* lowDims : {empty, low})
        EXPECT_LT(largest_during([&] {
                      homodyne_multiply(&none, &none, &none, &none, 2, empty, lowDims, &none,
                                        nullptr);
                  }),
                  kMiB);
    int n[3];
    homodyne_volume_sizes(2, empty, n);
    EXPECT_EQ(homodyne_weight_count(n), 0u);
    // The band edges come without weights: same as with them for a filled axis of that size.
    const double range[2] = {-10, 100};
    const double* ranges[3] = {range, nullptr, nullptr};
    int edges[3][2], fullEdges[3][2];
    const int flat[3] = {200, 0, 1}, filled[3] = {200, 1, 1};
    std::vector<float> weights(202);
    EXPECT_EQ(homodyne_filter_setup(flat, ranges, nullptr, edges), 1);
    EXPECT_EQ(homodyne_filter_setup(filled, ranges, weights.data(), fullEdges), 1);
    EXPECT_EQ(edges[0][0], fullEdges[0][0]);
    EXPECT_EQ(edges[0][1], fullEdges[0][1]);
    EXPECT_EQ(edges[1][1], -1);
}
