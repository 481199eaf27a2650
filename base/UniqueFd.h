// UniqueFd: owns one file descriptor and closes it when destroyed. The one
// owner of descriptors in the system: every layer that opens one hands it
// over to a UniqueFd at once, so no path leaks it.
//
// Thread-safety: like any value; one owner at a time.
#pragma once

#include <unistd.h>

#include <utility>

namespace qvl {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& o) noexcept : fd_(o.release()) {}
    UniqueFd& operator=(UniqueFd&& o) noexcept {
        if (this != &o) reset(o.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    explicit operator bool() const { return valid(); }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }
    // Closes now and answers whether close(2) succeeded: on some file systems
    // that is where a late write error shows.
    bool closeChecked() {
        if (fd_ < 0) return true;
        return ::close(std::exchange(fd_, -1)) == 0;
    }

  private:
    int fd_ = -1;
};

}  // namespace qvl
