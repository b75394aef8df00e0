// va_cmd: runs a program with its arguments, without a shell unless the program is
// one. Children are made with fork and execve only, so nothing that is unsafe after a
// fork in a threaded process runs in them; an exec failure comes back to the parent
// through a close-on-exec pipe. A command not waited for is started from a short-lived
// intermediate child, so it never becomes our zombie and no SIGCHLD handler is needed.
// A shell line the backend knows ("/bin/sh", "-c", LINE) is carried out natively, and
// waited for even when the caller would not wait: it is quick and starts nothing.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/unique_fd.h"
#include "platform/linux/native_commands.h"
#include "platform/mib.h"

namespace {

constexpr int kMaxCommandArgs = 32;
constexpr size_t kMaxProgramPath = 4096;
constexpr size_t kMaxDescription = 256;  // of a command line in a message
constexpr int kExecFailedStatus = 127;
constexpr const char *kDefaultSearchPath =
    "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

struct Command {
    const char *argv[kMaxCommandArgs + 2] = {};  // program, arguments, null
    char path[kMaxProgramPath] = {};             // the file to execute, found before forking
    bool quiet = false;
};

// Program and arguments as one line of text for a message, clipped.
void describe(const Command &cmd, char *text, size_t size) {
    size_t used = 0;
    text[0] = '\0';
    for (int i = 0; cmd.argv[i] && used < size; ++i) {
        int n = std::snprintf(text + used, size - used, "%s%s", i ? " " : "", cmd.argv[i]);
        if (n < 0) break;
        used += static_cast<size_t>(n);
    }
    for (char *c = text; *c; ++c)
        if (static_cast<unsigned char>(*c) < ' ') *c = ' ';  // keep the message on one line
}

void complain(const Command &cmd, const char *problem) {
    if (cmd.quiet) return;
    char line[kMaxDescription];
    describe(cmd, line, sizeof line);
    (void)std::fprintf(stderr, "hostrix: command \"%s\": %s\n", line, problem);
}

bool collectArgs(Command &cmd, const char *program, int argc, va_list args) {
    if (!program || argc < 0 || argc > kMaxCommandArgs) return false;
    cmd.argv[0] = program;
    for (int i = 1; i <= argc; ++i) {
        cmd.argv[i] = va_arg(args, const char *);
        if (!cmd.argv[i]) return false;
    }
    cmd.argv[argc + 1] = nullptr;
    return true;
}

// Finds PROGRAM on $PATH unless it names a file already, like execvp would.
bool resolveProgram(Command &cmd) {
    const char *program = cmd.argv[0];
    if (std::strchr(program, '/')) {
        int n = std::snprintf(cmd.path, sizeof cmd.path, "%s", program);
        return n > 0 && static_cast<size_t>(n) < sizeof cmd.path;
    }
    const char *search = std::getenv("PATH");
    for (const char *dir = search ? search : kDefaultSearchPath; *dir;) {
        size_t length = std::strcspn(dir, ":");
        int n = std::snprintf(cmd.path, sizeof cmd.path, "%.*s/%s", static_cast<int>(length), dir,
                              program);
        if (n > 0 && static_cast<size_t>(n) < sizeof cmd.path && access(cmd.path, X_OK) == 0)
            return true;
        dir += length + (dir[length] == ':' ? 1 : 0);
    }
    return false;
}

// In the child: only async-signal-safe calls from here on.
[[noreturn]] void execChild(const Command &cmd, int errorFd) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigaction(SIGPIPE, &fallback, nullptr);  // an ignored SIGPIPE would outlive the exec
    execve(cmd.path, const_cast<char *const *>(cmd.argv), environ);
    int error = errno;
    [[maybe_unused]] ssize_t told = write(errorFd, &error, sizeof error);
    _exit(kExecFailedStatus);
}

// 0 when the exec succeeded (the pipe closed empty), else its errno.
int execError(const UniqueFd &readEnd) {
    int error = 0;
    ssize_t got;
    do {
        got = read(readEnd.get(), &error, sizeof error);
    } while (got < 0 && errno == EINTR);
    return got == static_cast<ssize_t>(sizeof error) ? error : 0;
}

bool waitChild(pid_t pid, int &status) {
    pid_t got;
    do {
        got = waitpid(pid, &status, 0);
    } while (got < 0 && errno == EINTR);
    return got == pid;
}

bool makeErrorPipe(UniqueFd &readEnd, UniqueFd &writeEnd) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    readEnd.reset(fds[0]);
    writeEnd.reset(fds[1]);
    return true;
}

// Reports how a waited-for command ended; 0 for a clean exit.
int judgeExit(const Command &cmd, int status) {
    char problem[64];
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return 0;
    if (WIFEXITED(status))
        (void)std::snprintf(problem, sizeof problem, "exited with status %d", WEXITSTATUS(status));
    else if (WIFSIGNALED(status))
        (void)std::snprintf(problem, sizeof problem, "killed by signal %d", WTERMSIG(status));
    else
        (void)std::snprintf(problem, sizeof problem, "ended abnormally");
    complain(cmd, problem);
    return -1;
}

// The child, or in a detached run the intermediate, could not be made.
int forkFailed(const Command &cmd) {
    complain(cmd, std::strerror(errno));
    return -1;
}

int runWaited(const Command &cmd) {
    UniqueFd readEnd, writeEnd;
    if (!makeErrorPipe(readEnd, writeEnd)) return forkFailed(cmd);
    pid_t pid = fork();
    if (pid == 0) execChild(cmd, writeEnd.get());
    if (pid < 0) return forkFailed(cmd);
    writeEnd.reset();
    int error = execError(readEnd);
    int status = 0;
    bool waited = waitChild(pid, status);
    if (error != 0) {
        complain(cmd, std::strerror(error));
        return -1;
    }
    if (!waited) return forkFailed(cmd);
    return judgeExit(cmd, status);
}

int runDetached(const Command &cmd) {
    UniqueFd readEnd, writeEnd;
    if (!makeErrorPipe(readEnd, writeEnd)) return forkFailed(cmd);
    pid_t middle = fork();
    if (middle == 0) {
        pid_t pid = fork();
        if (pid == 0) execChild(cmd, writeEnd.get());
        _exit(pid < 0 ? EXIT_FAILURE : EXIT_SUCCESS);
    }
    if (middle < 0) return forkFailed(cmd);
    writeEnd.reset();
    int status = 0;
    if (!waitChild(middle, status) || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        complain(cmd, "could not be started");
        return -1;
    }
    int error = execError(readEnd);
    if (error == 0) return 0;
    complain(cmd, std::strerror(error));
    return -1;
}

// True when CMD is a shell line carried out natively; RESULT is then its outcome.
bool runNatively(const Command &cmd, int &result) {
    constexpr int kShellLineArgs = 2;  // "-c", the line
    if (std::strcmp(cmd.argv[0], "/bin/sh") != 0 || !cmd.argv[1] ||
        std::strcmp(cmd.argv[1], "-c") != 0 || !cmd.argv[kShellLineArgs] ||
        cmd.argv[kShellLineArgs + 1])
        return false;
    NativeResult native;
    if (!runNativeIfKnown(cmd.argv[kShellLineArgs], native)) return false;
    printNativeOutput(native);
    result = native.error == 0 ? 0 : -1;
    if (native.error != 0) complain(cmd, std::strerror(native.error));
    return true;
}

int runCommand(bool quiet, const char *program, int argc, int wait, va_list args) {
    Command cmd;
    cmd.quiet = quiet;
    if (!collectArgs(cmd, program, argc, args)) {
        if (!quiet)
            (void)std::fprintf(stderr, "hostrix: command %s: bad arguments\n",
                               program ? program : "(null)");
        return -1;
    }
    if (int result = 0; runNatively(cmd, result)) return result;
    if (!resolveProgram(cmd)) {
        complain(cmd, "program not found");
        return -1;
    }
    return wait ? runWaited(cmd) : runDetached(cmd);
}

}  // namespace

int va_cmd(const char *program, int argc, int wait, ...) {
    va_list args;
    va_start(args, wait);
    int result = runCommand(false, program, argc, wait, args);
    va_end(args);
    return result;
}

int va_cmd_no_error(const char *program, int argc, int wait, ...) {
    va_list args;
    va_start(args, wait);
    int result = runCommand(true, program, argc, wait, args);
    va_end(args);
    return result;
}
