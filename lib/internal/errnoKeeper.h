/*
 * Keeps errno across clean-up (frees, closes, logging) for as long as the keeper lives, so
 * that a failing function returns with the errno of the call that failed.
 */
#pragma once

#include <cerrno>

namespace tesmar {

class ErrnoKeeper {
 public:
   ErrnoKeeper() : saved_(errno) {}
   ~ErrnoKeeper() { errno = saved_; }
   ErrnoKeeper(const ErrnoKeeper &) = delete;
   ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

 private:
   int saved_;
};

}  // namespace tesmar
