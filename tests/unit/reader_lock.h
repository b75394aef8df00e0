// Another process holding a read lock on a file, as a local reader of the host file
// would, until the object goes. It lets go after five seconds at the latest, so that a
// writer that waits for it shows up as a failed expectation rather than a hang.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

class ReaderLock {
   public:
    explicit ReaderLock(const std::string &path) {
        if (pipe(release_) != 0 || pipe(ready_) != 0) return;
        child_ = fork();
        if (child_ == 0) holdLock(path);
        char byte = 0;
        locked_ = child_ > 0 && read(ready_[0], &byte, 1) == 1;
    }
    ~ReaderLock() { letGo(); }
    ReaderLock(const ReaderLock &) = delete;
    ReaderLock &operator=(const ReaderLock &) = delete;

    bool locked() const { return locked_; }
    void letGo() {
        if (child_ <= 0) return;
        [[maybe_unused]] ssize_t written = write(release_[1], "x", 1);
        waitpid(child_, nullptr, 0);
        child_ = -1;
        for (int fd : {release_[0], release_[1], ready_[0], ready_[1]}) close(fd);
    }

   private:
    static constexpr unsigned kGiveUpSeconds = 5;

    [[noreturn]] void holdLock(const std::string &path) {
        alarm(kGiveUpSeconds);
        int fd = open(path.c_str(), O_RDONLY);
        struct flock lock {};
        lock.l_type = F_RDLCK;
        char byte = 0;
        if (fd < 0 || fcntl(fd, F_SETLK, &lock) != 0 || write(ready_[1], "L", 1) != 1) _exit(2);
        _exit(read(release_[0], &byte, 1) == 1 ? 0 : 1);  // exit unlocks
    }

    int release_[2] = {-1, -1};
    int ready_[2] = {-1, -1};
    pid_t child_ = -1;
    bool locked_ = false;
};
