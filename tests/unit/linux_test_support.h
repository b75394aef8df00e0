// Helpers shared by the linux backend's tests: standard error captured in memory, a
// temporary directory, and a fixture that makes one the HOSTRIX_ROOT.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <array>
#include <cstring>

#include "core/paths.h"
#include "core/unique_fd.h"
#include "platform/linux/mib_store.h"
#include "platform/mib.h"
#include "temp_dir.h"


// Standard error redirected into memory until text() or the end of the object.
class StderrCapture {
   public:
    StderrCapture() {
        (void)std::fflush(stderr);
        dup2(file_.get(), STDERR_FILENO);
    }
    ~StderrCapture() { restore(); }
    std::string text() {
        restore();
        return readText("/proc/self/fd/" + std::to_string(file_.get()));
    }

   private:
    void restore() {
        (void)std::fflush(stderr);
        if (saved_.valid()) dup2(saved_.get(), STDERR_FILENO);
        saved_.reset();
    }
    UniqueFd file_{memfd_create("stderr", MFD_CLOEXEC)}, saved_{dup(STDERR_FILENO)};
};

// Each test gets its own HOSTRIX_ROOT, and so its own configuration file.
class HostrixRootTest : public ::testing::Test {
   protected:
    void SetUp() override {
        setenv("HOSTRIX_ROOT", root_.path.c_str(), 1);
        pathsReset();
        mibConfigReset();
    }
    void TearDown() override {
        unsetenv("HOSTRIX_ROOT");
        pathsReset();
    }
    void writeConfig(const std::string &text) const {
        std::filesystem::create_directories(root_.file("etc/hostrix"));
        std::ofstream(configPath(), std::ios::trunc) << text;
        mib_refresh();
    }
    std::string configPath() const { return root_.file("etc/hostrix/mib.conf"); }

    TempDir root_;
};
