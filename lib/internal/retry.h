/*
 * Retries a system call that failed with EINTR. The call's own result and errno are returned
 * unchanged otherwise: RetryEintr([&] { return read(fd, buf, n); }).
 */
#pragma once

#include <cerrno>

namespace tesmar {

template <typename Call>
auto RetryEintr(Call call) -> decltype(call())
{
   decltype(call()) result;
   do {
      result = call();
   } while (result == -1 && errno == EINTR);
   return result;
}

}  // namespace tesmar
