/*
 * Publish-once for lazily built process-wide objects: the first thread to store its object
 * into the empty slot wins; a loser destroys its own copy and uses the winner's. Objects
 * are never replaced once published.
 */
#pragma once

#include <atomic>

namespace tesmar {

/* Stores fresh into slot unless it already holds an object; returns the object that stands. */
template <typename T, typename Destroy>
T *PublishOnce(std::atomic<T *> &slot, T *fresh, Destroy destroy)
{
   T *expected = nullptr;
   if (slot.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel,
                                    std::memory_order_acquire)) {
      return fresh;
   }
   destroy(fresh);
   return expected;
}

/* The same over a plain pointer variable that other code reads as such. */
template <typename T, typename Destroy>
T *PublishOnce(T **storage, T *fresh, Destroy destroy)
{
   std::atomic_ref<T *> slot(*storage);
   T *expected = nullptr;
   if (slot.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel,
                                    std::memory_order_acquire)) {
      return fresh;
   }
   destroy(fresh);
   return expected;
}

/* Returns the published object, building and publishing one first when the slot is empty. */
template <typename T, typename Create, typename Destroy>
T *GetOrPublish(std::atomic<T *> &slot, Create create, Destroy destroy)
{
   T *current = slot.load(std::memory_order_acquire);
   return current != nullptr ? current : PublishOnce(slot, create(), destroy);
}

template <typename T, typename Create, typename Destroy>
T *GetOrPublish(T **storage, Create create, Destroy destroy)
{
   T *current = std::atomic_ref<T *>(*storage).load(std::memory_order_acquire);
   return current != nullptr ? current : PublishOnce(storage, create(), destroy);
}

}  // namespace tesmar
