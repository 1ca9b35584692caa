// Reader of gradient coefficient files: the text files of spherical-harmonic terms that come
// with a gradient coil. Strict where a slip would change the correction (every term line must
// parse, fit the series and appear once), quiet only about header lines without terms.
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <tuple>

#include "recon/recon.hpp"

namespace {

constexpr int kMaxDegreeXY = 13, kMaxOrderXY = 11, kMaxDegreeZ = 16;

const std::regex& r0_line() {
    static const std::regex re(R"(^\s*(\S+)\s*m\s*=\s*R0\b.*$)");
    return re;
}

const std::regex& term_line() {
    static const std::regex re(
        R"(^\s*\d+\s+([ABab])\s*\(\s*(-?\d+)\s*,\s*(-?\d+)\s*\)\s+(\S+)\s+([xyzXYZ])\s*$)");
    return re;
}

// A line that means to hold a term or a radius: it starts with a number, or names A( or B(.
bool looks_like_data(const std::string& s) {
    static const std::regex re(R"(^\s*[-+.0-9]|[ABab]\s*\()");
    return std::regex_search(s, re);
}

// The whole text as a finite number.
bool parse_number(const std::string& s, double& v) {
    errno = 0;
    char* end = nullptr;
    v = std::strtod(s.c_str(), &end);
    return end != s.c_str() && *end == '\0' && errno != ERANGE && std::isfinite(v);
}

std::string trim(const std::string& s) {
    const size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return "";
    return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

}  // namespace

bool MR_read_gradient_file(const char* path, float (*coefSin)[12], float (*coefCos)[12],
                           float (*coefZ)[1], float* r0, std::vector<MR_gradient_term>* dropped,
                           std::string* error) {
    std::ifstream in(path);
    if (!in) {
        *error = std::string("cannot open ") + path + ": " + std::strerror(errno);
        return false;
    }
    std::memset(coefSin, 0, sizeof(float[14][12]));
    std::memset(coefCos, 0, sizeof(float[14][12]));
    std::memset(coefZ, 0, sizeof(float[17][1]));
    dropped->clear();
    auto fail = [&](int line, const std::string& what) {
        *error = std::string(path) + ", line " + std::to_string(line) + ": " + what;
        return false;
    };

    std::map<std::tuple<char, int, int, char>, int> seen;  // term -> line
    int r0Line = 0;
    bool linear[3] = {false, false, false};
    std::string raw;
    for (int line = 1; std::getline(in, raw); ++line) {
        std::string s = raw.substr(0, raw.find('#'));
        if (!s.empty() && s.back() == '\r') s.pop_back();
        s = trim(s);
        if (s.empty()) continue;
        std::smatch m;
        if (std::regex_match(s, m, r0_line())) {
            double v;
            if (!parse_number(m[1], v) || !(v > 0))
                return fail(line, "R0 must be a positive number: '" + s + "'");
            if (r0Line)
                return fail(line,
                            "a second R0 line (the first is line " + std::to_string(r0Line) + ")");
            *r0 = static_cast<float>(v);
            r0Line = line;
            continue;
        }
        if (!std::regex_match(s, m, term_line())) {
            if (!looks_like_data(s)) continue;  // a header setting
            return fail(line,
                        "expected '<no> A( n, m) <value> <axis>' or '<r0> m = R0': '" + s + "'");
        }
        const char kind = static_cast<char>(std::toupper(m.str(1)[0]));
        const char axis = static_cast<char>(std::tolower(m.str(5)[0]));
        const int n = std::atoi(m.str(2).c_str()), order = std::atoi(m.str(3).c_str());
        double value;
        if (!parse_number(m[4], value))
            return fail(line, "the value '" + m.str(4) + "' is not a finite number");
        const std::string name = std::string(1, kind) + "(" + std::to_string(n) + "," +
                                 std::to_string(order) + ") " + axis;
        const bool z = axis == 'z';
        if (n < 0 || order < 0 || order > n || n > (z ? kMaxDegreeZ : kMaxDegreeXY) ||
            (!z && order > kMaxOrderXY))
            return fail(line, name +
                                  " is beyond the series (x, y: degree <= 13, order <= 11; "
                                  "z: degree <= 16; order <= degree)");
        const auto key = std::make_tuple(kind, n, order, axis);
        if (seen.count(key)) return fail(line, name + " repeats line " + std::to_string(seen[key]));
        seen[key] = line;

        float* slot = nullptr;
        if (axis == 'x' && kind == 'A' && order >= 1) slot = &coefCos[n][order];
        if (axis == 'y' && kind == 'B' && order >= 1) slot = &coefSin[n][order];
        if (z && kind == 'A' && order == 0 && n >= 1) slot = &coefZ[n][0];
        if (slot) {
            *slot = static_cast<float>(value);
            if (n == 1) linear[axis - 'x'] = true;
        } else if (value != 0) {
            dropped->push_back({line, kind, n, order, axis, value});
        }
    }
    if (in.bad()) return fail(0, "read error");
    if (!r0Line) {
        *error = std::string(path) + ": no R0 line ('<r0> m = R0')";
        return false;
    }
    if (!linear[0]) coefCos[1][1] = 1.0f;
    if (!linear[1]) coefSin[1][1] = 1.0f;
    if (!linear[2]) coefZ[1][0] = 1.0f;
    return true;
}
