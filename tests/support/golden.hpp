// Compares a test's whole output with a committed file: long fixed texts live in
// data files, not in the tests (the first line that differs is shown). After an intended
// change, CALLHOME_UPDATE_GOLDEN=1 rewrites the file.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace callhome_test {

// Bytes as golden files show them: outside printable ASCII as \xHH, runs of 8 or more of one
// byte as <c*N>.
inline std::string escaped(const std::string &s) {
    std::string out;
    for (size_t i = 0, n; i < s.size(); i += n) {
        for (n = 1; i + n < s.size() && s[i + n] == s[i];) {
            ++n;
        }
        char c[8];
        const auto u = static_cast<unsigned char>(s[i]);
        std::snprintf(c, sizeof c,
                      u < 0x20 || u >= 0x7f || u == '\\' || u == '<' ? "\\x%02x" : "%c", u);
        out += n >= 8 ? "<" + std::string(c) + "*" + std::to_string(n) + ">" : std::string(c);
        for (size_t k = 1; k < n && n < 8; ++k) {
            out += c;
        }
    }
    return out;
}
// The other way.
inline std::string unescaped(const std::string &s) {
    std::string out;
    const auto hex = [&](size_t at) { return char(std::stoi(s.substr(at, 2), nullptr, 16)); };
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '<') {
            const bool esc = s[i + 1] == '\\';
            const size_t n = i + (esc ? 6 : 3), end = s.find('>', n);
            out.append(std::stoul(s.substr(n, end - n)), esc ? hex(i + 3) : s[i + 1]);
            i = end;
        } else {
            out += s[i] == '\\' ? hex(i + 2) : s[i];
            i += s[i] == '\\' ? 3 : 0;
        }
    }
    return out;
}

inline void expect_golden(const std::string &path, const std::string &got) {
    if (const char *update = std::getenv("CALLHOME_UPDATE_GOLDEN"); update && *update == '1') {
        std::ofstream(path) << got;
        GTEST_SKIP() << "rewrote " << path;
    }
    std::ifstream file(path);
    ASSERT_TRUE(file) << "missing " << path << "; CALLHOME_UPDATE_GOLDEN=1 writes it";
    std::stringstream want;
    want << file.rdbuf();
    // The first line that differs, not the whole text: golden files run to thousands of lines.
    std::istringstream got_lines(got), want_lines(want.str());
    std::string g, w;
    for (int n = 1; bool(std::getline(got_lines, g)) | bool(std::getline(want_lines, w));
         ++n, g.clear(), w.clear()) {
        ASSERT_EQ(g, w) << "first difference at " << path << ":" << n
                        << " (CALLHOME_UPDATE_GOLDEN=1 rewrites the file after an intended change)";
    }
    EXPECT_EQ(want.str(), got) << path << " differs in its last line end";
}

} // namespace callhome_test
