// va_cmd on Linux: arguments passed as they are, waiting, reporting, and commands not
// waited for leaving no child behind.
#include <sys/wait.h>

#include <cerrno>

#include "linux_test_support.h"

namespace {

bool noChildLeft() {
    int status = 0;
    return waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
}

TEST(Commands, WaitedCommandFromPathGetsItsArgumentsUnsplit) {
    TempDir dir;
    const std::string script = "printf '%s|%s' \"$0\" \"$1\" > " + dir.file("out");
    EXPECT_EQ(va_cmd("sh", 4, 1, "-c", script.c_str(), "a b;c", "$HOME"), 0);
    EXPECT_EQ(readText(dir.file("out")), "a b;c|$HOME");  // written before va_cmd returned
    EXPECT_TRUE(noChildLeft());
}

// Program, script, whether waited for, and what the one-line message says after
// "hostrix: command " (nothing on success).
TEST(Commands, ResultAndOneLineMessage) {
    const std::tuple<const char *, const char *, int, std::string> cases[] = {
        {"/bin/sh", "exit 0", 1, ""},
        {"/bin/sh", "true\nexit 3", 1, "\"/bin/sh -c true exit 3\": exited with status 3"},
        {"/bin/sh", "kill -9 $$", 1, "\"/bin/sh -c kill -9 $$\": killed by signal 9"},
        {"/nonexistent/prog", "x", 1, "\"/nonexistent/prog -c x\": No such file or directory"},
        {"hostrix-no-such-program", "x", 1, "\"hostrix-no-such-program -c x\": program not found"},
        {"/bin/sh", "exit 3", 0, ""},  // not waited for: its status is not ours
        {"/nonexistent/prog", "x", 0, "\"/nonexistent/prog -c x\": No such file or directory"}};
    for (const auto &[program, script, wait, problem] : cases) {
        StderrCapture capture;
        EXPECT_EQ(va_cmd(program, 2, wait, "-c", script), problem.empty() ? 0 : -1) << script;
        EXPECT_EQ(capture.text(), problem.empty() ? "" : "hostrix: command " + problem + "\n");
        StderrCapture quiet;
        EXPECT_EQ(va_cmd_no_error(program, 2, wait, "-c", script), problem.empty() ? 0 : -1);
        EXPECT_EQ(quiet.text(), "");
        EXPECT_TRUE(noChildLeft());
    }
}

// At most 32 arguments, all of them real: 33 would not fit the argument vector.
TEST(Commands, BadArgumentListsRefused) {
#define EIGHT "a", "a", "a", "a", "a", "a", "a", "a"
    StderrCapture capture;
    EXPECT_EQ(va_cmd("/bin/true", 32, 1, EIGHT, EIGHT, EIGHT, EIGHT), 0);
    EXPECT_EQ(va_cmd("/bin/true", 33, 1, EIGHT, EIGHT, EIGHT, EIGHT, "a"), -1);
#undef EIGHT
    EXPECT_EQ(va_cmd("/bin/true", -1, 1), -1);
    EXPECT_EQ(va_cmd("/bin/true", 2, 1, static_cast<const char *>(nullptr), "a"), -1);
    EXPECT_EQ(va_cmd(nullptr, 0, 1), -1);
    EXPECT_EQ(capture.text().find("hostrix: command /bin/true: bad arguments\n"), 0u);
}

}  // namespace
