// Owner of one file descriptor: closed when the owner goes, so that every
// early return of a failure path releases it.
#pragma once

#include <unistd.h>
#include <utility>

class unique_fd
{
  public:
    unique_fd() noexcept = default;
    explicit unique_fd(int fd) noexcept : fd_(fd) {}
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    unique_fd(unique_fd &&o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
    unique_fd &operator=(unique_fd &&o) noexcept
    {
        if (this != &o)
            reset(std::exchange(o.fd_, -1));
        return *this;
    }
    ~unique_fd()
    {
        reset();
    }

    int get() const noexcept
    {
        return fd_;
    }
    explicit operator bool() const noexcept
    {
        return fd_ >= 0;
    }
    int release() noexcept
    {
        return std::exchange(fd_, -1);
    }
    void reset(int fd = -1) noexcept
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};
