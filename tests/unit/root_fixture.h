// A fixture whose daemon files live in a temporary HOSTRIX_ROOT with the
// directories the daemon expects (var, var/run, tmp).
#pragma once

#include <cstdlib>
#include <filesystem>

#include "core/paths.h"
#include "fixture.h"
#include "temp_dir.h"

class RootedTest : public HostrixTest {
protected:
    void SetUp() override {
        HostrixTest::SetUp();
        for (const char *dir : {"var/run", "tmp"})
            std::filesystem::create_directories(root.file(dir));
        setenv("HOSTRIX_ROOT", root.path.c_str(), 1);
        pathsReset();
    }
    void TearDown() override {
        unsetenv("HOSTRIX_ROOT");
        pathsReset();
    }

    TempDir root;
};
