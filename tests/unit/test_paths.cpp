#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "core/paths.h"

namespace {

class PathsTest : public ::testing::Test {
protected:
    void TearDown() override {
        unsetenv("HOSTRIX_ROOT");
        pathsReset();
    }
    static std::string pathWithRoot(const char *root, HostrixFile file) {
        if (root) {
            setenv("HOSTRIX_ROOT", root, 1);
        } else {
            unsetenv("HOSTRIX_ROOT");
        }
        pathsReset();
        return hostrixPath(file);
    }
};

TEST_F(PathsTest, RootPrefixesEveryFile) {
    EXPECT_EQ(pathWithRoot(nullptr, HostrixFile::ControlSocket), "/var/run/.hostrix_msg");
    EXPECT_EQ(pathWithRoot("", HostrixFile::HostInfo), "/var/hostrix");
    EXPECT_EQ(pathWithRoot("/tmp/x", HostrixFile::PidFile), "/tmp/x/var/run/hostrix.pid");
    EXPECT_EQ(pathWithRoot("/tmp/x//", HostrixFile::Fifo), "/tmp/x/var/run/hostrix.fifo");
    EXPECT_EQ(pathWithRoot("/r", HostrixFile::FcLutList), "/r/tmp/fc_lut_list");
    EXPECT_EQ(pathWithRoot("/r", HostrixFile::Config), "/r/etc/hostrix/mib.conf");
    EXPECT_EQ(pathWithRoot("/r", HostrixFile::HostapdSocket),
              "/r/var/run/.hostapd_action_sock");
    EXPECT_EQ(pathWithRoot("/r", HostrixFile::IgnoreIfnames),
              "/r/var/run/.hostrix_ignore_ifnames");
    EXPECT_EQ(hostrixBasePath(HostrixFile::IgnoreIfnames), "/var/run/.hostrix_ignore_ifnames");
}

}  // namespace
