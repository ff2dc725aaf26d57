/*
 * A move-only owner of one file descriptor: closed exactly once, when the holder goes out of
 * scope or is reset, unless ownership is given away with release(). errno is kept across the
 * close, so error paths can return through it without saving errno by hand.
 */
#pragma once

#include <cerrno>
#include <unistd.h>

namespace tesmar {

class UniqueFd {
 public:
   UniqueFd() = default;
   explicit UniqueFd(int fd) : fd_(fd) {}
   UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
   UniqueFd &operator=(UniqueFd &&other) noexcept
   {
      if (this != &other) {
         reset(other.release());
      }
      return *this;
   }
   UniqueFd(const UniqueFd &) = delete;
   UniqueFd &operator=(const UniqueFd &) = delete;
   ~UniqueFd() { reset(); }

   int get() const { return fd_; }
   bool valid() const { return fd_ >= 0; }
   explicit operator bool() const { return valid(); }

   /* Gives up ownership: the caller now closes the descriptor. */
   int release()
   {
      int fd = fd_;
      fd_ = -1;
      return fd;
   }

   /* Closes the held descriptor (keeping errno) and holds fd instead. */
   void reset(int fd = -1)
   {
      if (fd_ >= 0 && fd_ != fd) {
         int savedErrno = errno;
         ::close(fd_);
         errno = savedErrno;
      }
      fd_ = fd;
   }

   /* Closes now and reports the close's own result (0, or -1 with errno set). */
   int close()
   {
      int fd = release();
      return fd >= 0 ? ::close(fd) : 0;
   }

 private:
   int fd_ = -1;
};

}  // namespace tesmar
