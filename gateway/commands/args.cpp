// The argument readers every command shares: one wording per kind of problem.
#include <cmath>
#include <limits>
#include <new>

#include "gateway/commands/call.hpp"

namespace mrkit::commands {
namespace {

bool is_numeric(ElementClass c) {
    return c != ElementClass::Logical && c != ElementClass::Char && c != ElementClass::Other;
}

// The host's sizes with at least two entries, as Octave reports them (NumPy may give fewer).
std::vector<std::int64_t> shape(const Input& a) {
    std::vector<std::int64_t> d = a.dims();
    if (d.size() < 2) d.resize(2, 1);
    return d;
}

std::string count_text(std::size_t minCount, std::size_t maxCount) {
    std::string count = std::to_string(minCount);
    if (maxCount != minCount) count += " to " + std::to_string(maxCount);
    return count + (maxCount == 1 ? " element" : " elements");
}

}  // namespace

std::int64_t size_bound(const std::vector<std::int64_t>& dims) {
    std::int64_t p = 1;
    for (std::int64_t d : dims) {
        p *= d > 1 ? d : 1;
        if (p > kMaxIndex) return kMaxIndex + 1;
    }
    return p;
}

std::vector<int> Floats::padded(int n) const {
    std::vector<int> p(dims);
    if (static_cast<int>(p.size()) < n) p.resize(n, 1);
    return p;
}

Floats single_shape(Call& call, const Input& a, const std::string& name, Complexity complexity,
                    int maxRank) {
    if (a.element_class() != ElementClass::Single) call.fail(ErrorKind::Type, name + " must be single");
    if (complexity == Complexity::Real && a.is_complex())
        call.fail(ErrorKind::Type, name + " must be real");
    const std::vector<std::int64_t> dims = shape(a);
    if (static_cast<std::int64_t>(dims.size()) > maxRank)
        call.fail(name + " must have at most " + std::to_string(maxRank) + " dimensions");
    if (size_bound(dims) > kMaxIndex) call.fail(name + " is too large for 32-bit indices");

    Floats f;
    f.source = &a;
    f.name = name;
    f.dims.assign(dims.begin(), dims.end());
    f.numel = static_cast<int>(a.numel());
    f.complex = a.is_complex();
    return f;
}

void load(Call& call, Floats& f) {
    // Octave splits complex data into two new blocks on this request.
    const std::uint64_t bytes = f.complex ? 8 * static_cast<std::uint64_t>(f.numel) : 0;
    const std::string what = "the conversion of " + f.name;
    call.need(bytes, what);
    SingleBlocks b;
    try {
        b = f.source->single_blocks();
    } catch (const std::bad_alloc&) {
        const std::uint64_t all = (f.complex ? 8 : 4) * static_cast<std::uint64_t>(f.numel);
        call.fail(ErrorKind::Memory, "not enough memory for " + what + " (" + bytes_text(all) + ")");
    }
    f.re = b.re;
    f.im = f.complex ? b.im : nullptr;
}

void require_numeric(Call& call, const Input& a, const std::string& name) {
    if (!is_numeric(a.element_class()) || a.is_complex() || a.is_sparse())
        call.fail(ErrorKind::Type, name + " must be real and numeric");
}

std::vector<double> numbers(Call& call, const Input& a, const std::string& name,
                            std::size_t minCount, std::size_t maxCount) {
    require_numeric(call, a, name);
    const std::int64_t n = a.numel();
    if (static_cast<std::uint64_t>(n) < minCount || static_cast<std::uint64_t>(n) > maxCount)
        call.fail(name + " must have " + count_text(minCount, maxCount));
    std::vector<double> v(static_cast<std::size_t>(n));
    a.read_doubles(v.data(), n);
    return v;
}

std::vector<double> finite_numbers(Call& call, const Input& a, const std::string& name,
                                   std::size_t minCount, std::size_t maxCount) {
    std::vector<double> v = numbers(call, a, name, minCount, maxCount);
    for (double x : v)
        if (!std::isfinite(x)) call.fail(name + " must be finite");
    return v;
}

double finite_scalar(Call& call, const Input& a, const std::string& name) {
    return finite_numbers(call, a, name, 1, 1)[0];
}

float single_scalar(Call& call, const Input& a, const std::string& name) {
    const double v = finite_scalar(call, a, name);
    if (!(std::fabs(v) <= std::numeric_limits<float>::max())) call.fail(name + single_range_text());
    return static_cast<float>(v);
}

std::string single_range_text() {
    return " must be at most 3.4e38 in magnitude (single precision)";
}

std::vector<int> integers(Call& call, const Input& a, const std::string& name,
                          std::size_t minCount, std::size_t maxCount, std::int64_t lo,
                          std::int64_t hi) {
    std::vector<int> out;
    for (double x : finite_numbers(call, a, name, minCount, maxCount)) {
        if (x != std::floor(x) || x < static_cast<double>(lo) || x > static_cast<double>(hi)) {
            const bool one = maxCount == 1;
            call.fail(name + (one ? " must be an integer from " : " must hold integers from ") +
                      std::to_string(lo) + " to " + std::to_string(hi));
        }
        out.push_back(static_cast<int>(x));
    }
    return out;
}

int dimension(Call& call, const Input& a, const std::string& name, int count) {
    const int base = call.axis_base();
    return integers(call, a, name, 1, 1, base, count - 1 + base)[0] - base + 1;
}

}  // namespace mrkit::commands
