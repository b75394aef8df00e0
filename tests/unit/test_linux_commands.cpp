// va_cmd on Linux: arguments passed as they are, waiting, reporting, and commands not
// waited for leaving no child behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "core/unique_fd.h"
#include "platform/mib.h"

namespace {

// Names parameterised cases after their `name` member.
struct CaseName {
    template <typename T>
    std::string operator()(const ::testing::TestParamInfo<T> &param) const {
        return param.param.name;
    }
};

// Standard error redirected into memory for the lifetime of the object.
class StderrCapture {
   public:
    StderrCapture() : file_(memfd_create("stderr", MFD_CLOEXEC)), saved_(dup(STDERR_FILENO)) {
        (void)std::fflush(stderr);
        dup2(file_.get(), STDERR_FILENO);
    }
    ~StderrCapture() { restore(); }
    std::string text() {
        restore();
        std::string out(4096, '\0');
        ssize_t got = pread(file_.get(), out.data(), out.size(), 0);
        out.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return out;
    }

   private:
    void restore() {
        (void)std::fflush(stderr);
        if (saved_.valid()) dup2(saved_.get(), STDERR_FILENO);
        saved_.reset();
    }
    UniqueFd file_;
    UniqueFd saved_;
};

class Commands : public ::testing::Test {
   protected:
    void SetUp() override {
        char pattern[] = "/tmp/hostrix-cmd-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string file(const char *name) const { return dir_ + "/" + name; }
    static std::string contents(const std::string &path) {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    static bool noChildLeft() {
        int status = 0;
        return waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
    }
    std::string dir_;
};

TEST_F(Commands, WaitedCommandHasFinishedOnReturn) {
    std::string line = "echo x > " + file("out");
    EXPECT_EQ(va_cmd("/bin/sh", 2, 1, "-c", line.c_str()), 0);
    EXPECT_EQ(contents(file("out")), "x\n");
    EXPECT_TRUE(noChildLeft());
}

TEST_F(Commands, ArgumentsReachTheProgramUnsplit) {
    std::string script = "printf '%s|%s' \"$0\" \"$1\" > " + file("out");
    EXPECT_EQ(va_cmd("/bin/sh", 4, 1, "-c", script.c_str(), "a b;c", "$HOME"), 0);
    EXPECT_EQ(contents(file("out")), "a b;c|$HOME");
}

TEST_F(Commands, ProgramFoundOnPath) {
    std::string line = "echo y > " + file("out");
    EXPECT_EQ(va_cmd("sh", 2, 1, "-c", line.c_str()), 0);
    EXPECT_EQ(contents(file("out")), "y\n");
}

struct OutcomeCase {
    const char *name;
    const char *program;
    const char *script;
    int wait;
    const char *problem;  // in the message; nullptr when the command succeeds
};

class CommandOutcome : public Commands, public ::testing::WithParamInterface<OutcomeCase> {};

TEST_P(CommandOutcome, ResultAndMessage) {
    const OutcomeCase &c = GetParam();
    int expected = c.problem ? -1 : 0;
    {
        StderrCapture capture;
        EXPECT_EQ(va_cmd(c.program, 2, c.wait, "-c", c.script), expected);
        std::string said = capture.text();
        if (c.problem) {
            EXPECT_EQ(said.rfind("hostrix: command \"", 0), 0u) << said;
            EXPECT_NE(said.find(c.problem), std::string::npos) << said;
            EXPECT_EQ(said.find('\n'), said.size() - 1) << "one line: " << said;
        } else {
            EXPECT_EQ(said, "");
        }
    }
    StderrCapture quiet;
    EXPECT_EQ(va_cmd_no_error(c.program, 2, c.wait, "-c", c.script), expected);
    EXPECT_EQ(quiet.text(), "");
    EXPECT_TRUE(noChildLeft());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CommandOutcome,
    ::testing::Values(
        OutcomeCase{"CleanExit", "/bin/sh", "exit 0", 1, nullptr},
        OutcomeCase{"FailingExit", "/bin/sh", "exit 3", 1, "exited with status 3"},
        OutcomeCase{"MultiLineScript", "/bin/sh", "true\nexit 4", 1, "exited with status 4"},
        OutcomeCase{"Killed", "/bin/sh", "kill -9 $$", 1, "killed by signal 9"},
        OutcomeCase{"MissingProgram", "/nonexistent/prog", "x", 1, "No such file or directory"},
        OutcomeCase{"NotExecutable", "/etc/passwd", "x", 1, "Permission denied"},
        OutcomeCase{"NotOnPath", "hostrix-no-such-program", "x", 1, "program not found"},
        OutcomeCase{"DetachedStarts", "/bin/sh", "exit 3", 0, nullptr},
        OutcomeCase{"DetachedMissing", "/nonexistent/prog", "x", 0, "No such file or directory"}),
    CaseName());

// The detached command writes into a pipe we hold: its end of file proves that the
// command ran and finished, without any waiting on time.
TEST_F(Commands, DetachedCommandRunsAndLeavesNoChild) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);  // inherited on purpose
    UniqueFd readEnd(fds[0]);
    UniqueFd writeEnd(fds[1]);
    std::string line = "echo ran >&" + std::to_string(writeEnd.get());
    ASSERT_EQ(va_cmd("/bin/sh", 2, 0, "-c", line.c_str()), 0);
    EXPECT_TRUE(noChildLeft());
    writeEnd.reset();
    char text[16] = {};
    std::string got;
    ssize_t n;
    while ((n = read(readEnd.get(), text, sizeof text)) > 0)
        got.append(text, static_cast<size_t>(n));
    EXPECT_EQ(got, "ran\n");
}

TEST_F(Commands, BadArgumentListsRefused) {
    StderrCapture capture;
    EXPECT_EQ(va_cmd("/bin/sh", -1, 1), -1);
    EXPECT_EQ(va_cmd("/bin/sh", 33, 1), -1);
    EXPECT_EQ(va_cmd("/bin/sh", 2, 1, "-c", static_cast<const char *>(nullptr)), -1);
    EXPECT_EQ(va_cmd(nullptr, 0, 1), -1);
    EXPECT_TRUE(noChildLeft());
}

}  // namespace
