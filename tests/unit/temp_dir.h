// A temporary directory removed with everything in it, and whole-file reads: what
// tests that run against real files share.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

inline std::string readText(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

struct TempDir {
    TempDir() {
        char pattern[] = "/tmp/hostrix-test-XXXXXX";
        EXPECT_NE(mkdtemp(pattern), nullptr);
        path = pattern;
    }
    ~TempDir() { std::filesystem::remove_all(path); }
    std::string file(const std::string &name) const { return path + "/" + name; }
    std::string path;
};
