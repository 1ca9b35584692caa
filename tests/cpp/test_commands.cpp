// The host-neutral command layer through a plain host: checks before any data is touched, error
// kinds, 0-based dimension arguments, and memory refusals named by command and size. That the
// commands give the library's bits is the Octave and Python tests' (against Octave's and
// NumPy's own functions).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "gateway/commands/layer.hpp"
#include "recon/recon.hpp"
#include "support/bits.hpp"

namespace cmd = mrkit::commands;

namespace {

// A single-precision array, or an array of another class that claims its sizes without holding
// its elements: asking for those fails the test.
class ArrayInput final : public cmd::Input {
  public:
    ArrayInput(std::vector<std::int64_t> dims, std::vector<float> re, std::vector<float> im = {})
        : dims_(std::move(dims)), re_(std::move(re)), im_(std::move(im)) {}
    static ArrayInput claiming(cmd::ElementClass c, std::vector<std::int64_t> dims) {
        ArrayInput a(std::move(dims), {});
        a.class_ = c;
        a.hollow_ = true;
        return a;
    }

    cmd::ElementClass element_class() const override { return class_; }
    bool is_complex() const override { return !im_.empty(); }
    std::vector<std::int64_t> dims() const override { return dims_; }
    std::int64_t numel() const override {
        std::int64_t n = 1;
        for (std::int64_t d : dims_) n *= d;
        return n;
    }
    cmd::SingleBlocks single_blocks() const override {
        ++requests;
        EXPECT_FALSE(hollow_) << "blocks asked of an argument that holds none";
        return {re_.data(), im_.empty() ? nullptr : im_.data()};
    }
    void read_doubles(double* out, std::int64_t n) const override {
        ++requests;
        EXPECT_FALSE(hollow_) << "elements read of an argument that holds none";
        for (std::int64_t i = 0; i < n && !hollow_; ++i) out[i] = re_[i];
    }
    std::string text() const override { return {}; }

    mutable int requests = 0;

  private:
    std::vector<std::int64_t> dims_;
    std::vector<float> re_, im_;
    cmd::ElementClass class_ = cmd::ElementClass::Single;
    bool hollow_ = false;
};

struct Output {
    std::vector<std::int64_t> dims;
    std::vector<float> re, im;
    std::vector<double> values;
};

class PlainHost final : public cmd::Host {
  public:
    int outputs_requested() const override { return 0; }
    cmd::Blocks<float> new_single(int slot, const std::vector<std::int64_t>& dims, bool complex,
                                  cmd::Fill) override {
        if (refuseAllocation) throw std::bad_alloc();
        Output& o = outputs[slot];
        std::int64_t n = 1;
        for (std::int64_t d : dims) n *= d;
        o.dims = dims;
        o.re.assign(n, 0.f);
        o.im.assign(complex ? n : 0, 0.f);
        return {o.re.data(), complex ? o.im.data() : nullptr};
    }
    cmd::Blocks<double> new_double(int slot, const std::vector<std::int64_t>& dims,
                                   bool) override {
        Output& o = outputs[slot];
        o.dims = dims;
        o.values.assign(dims[0] * dims[1], 0.0);
        return {o.values.data(), nullptr};
    }
    void set_record(int, const std::vector<cmd::Field>&) override {}
    void set_strings(int, const std::vector<std::string>&) override {}
    void warn(const std::string&, const std::string&) override {}
    int axis_base() const override { return base; }
    std::uint64_t memory_limit() const override { return limit; }
    void library_begins() override { ++libraryCalls; }

    std::map<int, Output> outputs;
    int base = 1;
    std::uint64_t limit = std::uint64_t(1) << 40;
    bool refuseAllocation = false;
    int libraryCalls = 0;
};

std::vector<float> ramp(int n, float scale) {
    std::vector<float> v(n);
    for (int i = 0; i < n; ++i) v[i] = scale * std::sin(0.37f * i + 1.f);
    return v;
}

// Runs a command and returns the error it ends with.
cmd::Error refusal(const char* command, const std::vector<const cmd::Input*>& inputs,
                   PlainHost& host) {
    try {
        cmd::run(command, inputs, host);
    } catch (const cmd::Error& e) {
        return e;
    }
    ADD_FAILURE() << command << ": no error";
    return cmd::Error(cmd::ErrorKind::Value, "", "");
}

}  // namespace

TEST(Commands, RefusedCallsTouchNoData) {
    PlainHost host;
    const ArrayInput x({4, 3}, ramp(12, 1.f));
    // A size argument that claims 2^28 elements fails on its count, none of them read.
    const ArrayInput huge = ArrayInput::claiming(cmd::ElementClass::Int8, {1 << 28, 1});
    cmd::Error e = refusal("ifftshift", {&x, &huge}, host);
    EXPECT_STREQ(e.what(), "mrkit:ifftshift: dim must have 1 element");
    EXPECT_EQ(huge.requests, 0);
    // A failing later check leaves earlier data arrays unconverted.
    const cmd::NumberInput small({3, 3});
    e = refusal("zeropad", {&x, &small}, host);
    EXPECT_STREQ(e.what(), "mrkit:zeropad: newSize(1) must not be smaller than size(x, 1) (4)");
    const ArrayInput f({4, 2, 1, 3}, ramp(24, 1.f), ramp(24, 1.f));
    const ArrayInput s({4, 4, 1, 3}, ramp(48, 1.f), ramp(48, 1.f));
    const cmd::NumberInput full({4, 4});
    const cmd::TextInput option("regScale");
    const cmd::NumberInput zero({0});
    e = refusal("sense", {&f, &s, &full, &option, &zero}, host);
    EXPECT_STREQ(e.what(), "mrkit:sense: regScale must be positive");
    const cmd::NumberInput r0({1e39});
    const cmd::NumberInput sinc(std::vector<double>(168, 1.0), {14, 12});
    const cmd::NumberInput zc(std::vector<double>(17, 1.0), {17, 1});
    const ArrayInput p({4, 3}, ramp(12, 1.f));
    e = refusal("gradwarp", {&p, &p, &p, &sinc, &sinc, &zc, &r0}, host);
    EXPECT_STREQ(e.what(), "mrkit:gradwarp: r0 must be at most 3.4e38 in magnitude (single precision)");
    EXPECT_EQ(x.requests + f.requests + s.requests + p.requests, 0);
    EXPECT_TRUE(host.outputs.empty());
    EXPECT_EQ(host.libraryCalls, 0);
}

TEST(Commands, ErrorKindsAndIds) {
    PlainHost host;
    const ArrayInput x({4, 3}, ramp(12, 1.f));
    const ArrayInput wrongClass = ArrayInput::claiming(cmd::ElementClass::Double, {4, 3});
    const cmd::NumberInput one({1}), four({4});
    cmd::Error e = refusal("fftshift", {&wrongClass, &one}, host);
    EXPECT_EQ(e.kind(), cmd::ErrorKind::Type);
    EXPECT_EQ(e.id(), "mrkit:fftshift");
    EXPECT_EQ(refusal("fftshift", {&x}, host).kind(), cmd::ErrorKind::Type);
    e = refusal("fftshift", {&x, &four}, host);
    EXPECT_EQ(e.kind(), cmd::ErrorKind::Value);
    EXPECT_STREQ(e.what(), "mrkit:fftshift: dim must be an integer from 1 to 3");
    // Names of any length reach the message whole.
    const std::string name(300, 'q');
    const cmd::TextInput command(name);
    try {
        cmd::dispatch({&command, &x}, host);
        ADD_FAILURE() << "no error";
    } catch (const cmd::Error& err) {
        EXPECT_EQ(err.id(), "mrkit:command");
        EXPECT_NE(std::string(err.what()).find("'" + name + "'"), std::string::npos);
    }
    EXPECT_EQ(refusal("-spans", {&x}, host).kind(), cmd::ErrorKind::Type);
}

TEST(Commands, DimensionArgumentsFollowTheHostsNumbering) {
    PlainHost host;
    host.base = 0;
    const int n = 5 * 4 * 3;
    const ArrayInput x({5, 4, 3}, ramp(n, 1.f));
    const cmd::NumberInput zero({0}), three({3}), nine({9});
    cmd::run("fftshift", {&x, &zero}, host);
    std::vector<float> re = ramp(n, 1.f);
    const int dims[3] = {5, 4, 3};
    MR_fftshift(re.data(), nullptr, dims, 3, 1);
    EXPECT_TRUE(same_bits(host.outputs[0].re, re));
    EXPECT_STREQ(refusal("fftshift", {&x, &three}, host).what(),
                 "mrkit:fftshift: dim must be an integer from 0 to 2");
    const ArrayInput ten({1, 1, 1, 1, 1, 1, 1, 1, 1, 2}, {1.f, 2.f});
    EXPECT_STREQ(refusal("pcsos", {&ten, &nine}, host).what(),
                 "mrkit:pcsos: coilDim must not be 9, the dimension pcsos averages along");
}

TEST(Commands, MemoryRefusalsNameCommandAndSize) {
    const ArrayInput x({1, 1}, {1.f}, {0.f});
    const cmd::NumberInput size({46340, 46340});
    const char* message = "mrkit:zeropad: not enough memory for a 46340 x 46340 complex output (16 GB)";
    PlainHost limited;
    limited.limit = std::uint64_t(1) << 30;
    cmd::Error e = refusal("zeropad", {&x, &size}, limited);
    EXPECT_EQ(e.kind(), cmd::ErrorKind::Memory);
    EXPECT_STREQ(e.what(), message);
    // The host's own allocation failure gets the same words.
    PlainHost failing;
    failing.refuseAllocation = true;
    EXPECT_STREQ(refusal("zeropad", {&x, &size}, failing).what(), message);
    // SENSE counts its factor storage before allocating anything.
    const ArrayInput f({2000, 1000, 1, 2}, std::vector<float>(4000000, 1.f));
    const ArrayInput s({2000, 2000, 1, 2}, std::vector<float>(8000000, 1.f));
    const cmd::NumberInput full({2000, 2000});
    PlainHost small;
    small.limit = std::uint64_t(100) << 20;
    e = refusal("sense", {&f, &s, &full}, small);
    EXPECT_STREQ(e.what(),
                 "mrkit:sense: not enough memory for the combination factors at this fullSize "
                 "(122 MB)");
    EXPECT_EQ(f.requests + s.requests, 0);
}

// 'sense' with maps that are zero outside an ellipse: 'validity', 'exact' gives MR_sense_recon's
// bits, NaN included, and the default those of MR_sense_recon_voxelwise; the status tells which
// output holds samples not finite.
TEST(Commands, SenseValidityRules) {
    const int nx = 12, ny = 16, fy = 8, coils = 4;
    std::vector<float> sRe(nx * ny * coils), sIm(sRe.size()), fRe(nx * fy * coils), fIm(fRe.size());
    for (int c = 0; c < coils; ++c)
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x) {
                const float u = (x - 5.5f) / 5.f, v = (y - 7.5f) / 7.f;
                const bool inside = u * u + v * v <= 1.f;
                const int i = x + nx * (y + ny * c);
                sRe[i] = inside ? 1.f + 0.1f * c + 0.05f * x : 0.f;
                sIm[i] = inside ? 0.2f * std::sin(0.3f * (c + 1) * y) : 0.f;
                // An object filling the ellipse, folded onto fy lines.
                const int o = x + nx * ((y + fy - (ny - fy + 1) / 2) % fy + fy * c);
                fRe[o] += sRe[i];
                fIm[o] += sIm[i];
            }
    const ArrayInput folded({nx, fy, 1, coils}, fRe, fIm), sens({nx, ny, 1, coils}, sRe, sIm);
    const cmd::NumberInput full({double(nx), double(ny)});
    const cmd::TextInput validity("validity"), exact("exact");
    const int fd[4] = {nx, fy, 1, coils}, sd[4] = {nx, ny, 1, coils}, full3[3] = {nx, ny, 1};
    const int eye[2] = {coils, coils}, od[4] = {nx, ny, 1, 1};
    for (const bool reference : {true, false}) {
        PlainHost host;
        if (reference)
            cmd::run("sense", {&folded, &sens, &full, &validity, &exact}, host);
        else
            cmd::run("sense", {&folded, &sens, &full}, host);
        std::vector<float> re(nx * ny, 0.f), im(nx * ny, 0.f);
        (reference ? MR_sense_recon : MR_sense_recon_voxelwise)(
            fRe.data(), fIm.data(), 4, fd, sRe.data(), sIm.data(), 4, sd, nullptr, nullptr, 2,
            eye, full3, nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, nullptr, 1.0,
            re.data(), im.data(), od);
        EXPECT_EQ(std::memcmp(re.data(), host.outputs[0].re.data(), re.size() * 4), 0);
        EXPECT_EQ(std::memcmp(im.data(), host.outputs[0].im.data(), im.size() * 4), 0);
        const bool finite = std::all_of(re.begin(), re.end(), [](float v) { return std::isfinite(v); });
        EXPECT_EQ(finite, !reference);
        EXPECT_EQ(host.outputs[1].values[0], reference ? 0.0 : 1.0);
    }
}
