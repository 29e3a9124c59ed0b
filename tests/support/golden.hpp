// Compares a test's whole output with a committed file, line by line: long fixed texts live in
// data files, not in the tests. After an intended change, CALLHOME_UPDATE_GOLDEN=1 rewrites it.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace callhome_test {

inline void expect_golden(const std::string &path, const std::string &got) {
    if (const char *update = std::getenv("CALLHOME_UPDATE_GOLDEN"); update && *update == '1') {
        std::ofstream(path) << got;
        GTEST_SKIP() << "rewrote " << path;
    }
    std::ifstream file(path);
    ASSERT_TRUE(file) << "missing " << path << "; CALLHOME_UPDATE_GOLDEN=1 writes it";
    std::stringstream want;
    want << file.rdbuf();
    std::istringstream got_lines(got), want_lines(want.str());
    std::string g, w;
    for (int n = 1; bool(std::getline(got_lines, g)) | bool(std::getline(want_lines, w));
         ++n, g.clear(), w.clear()) {
        ASSERT_EQ(g, w) << "first difference at " << path << ":" << n;
    }
}

} // namespace callhome_test
