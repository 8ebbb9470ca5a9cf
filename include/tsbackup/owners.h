// Owners of what must be given back. Each holds one thing, moves and never copies.

#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

namespace tsbackup {

/// Owns a descriptor, -1: none; closed at the end of its life. `errno` survives the closing.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            const int saved = errno;
            ::close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

/// Deletes with a plain function, so that an owner is no larger than its pointer.
template <auto function> struct ReleaseWith {
    template <typename T> void operator()(T *held) const { static_cast<void>(function(held)); }
};

using UniqueFile = std::unique_ptr<std::FILE, ReleaseWith<std::fclose>>; ///< a stream
using UniqueDir = std::unique_ptr<DIR, ReleaseWith<closedir>>;           ///< a directory listing
template <typename T> using UniqueMalloc = std::unique_ptr<T, ReleaseWith<std::free>>;
using UniqueText = UniqueMalloc<char>; ///< a text from malloc

} // namespace tsbackup
