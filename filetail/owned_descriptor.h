#pragma once
/// A file descriptor that is closed at the end of its scope.
#include <unistd.h>

/// Owns `fd`; a negative one is none. Neither copied nor moved: it stays with the function that
/// opened it.
class owned_descriptor {
  public:
    explicit owned_descriptor(int fd) : fd_(fd) {}
    ~owned_descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    owned_descriptor(const owned_descriptor &) = delete;
    owned_descriptor &operator=(const owned_descriptor &) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};
