// A reader's read lock on a file, as a local reader of the host file would hold it,
// until letGo() or the object goes. An open-file-description lock: the daemon's record
// locks conflict with it even within this process.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>

class ReaderLock {
   public:
    explicit ReaderLock(const std::string &path) : fd_(open(path.c_str(), O_RDONLY)) {
        struct flock lock {};
        lock.l_type = F_RDLCK;
        locked_ = fd_ >= 0 && fcntl(fd_, F_OFD_SETLK, &lock) == 0;
    }
    ~ReaderLock() { letGo(); }
    ReaderLock(const ReaderLock &) = delete;
    ReaderLock &operator=(const ReaderLock &) = delete;

    bool locked() const { return locked_; }
    void letGo() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

   private:
    int fd_;
    bool locked_ = false;
};
