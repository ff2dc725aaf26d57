/*
 * Publish-once for lazily built process-wide objects: the first thread to store its object
 * into the empty slot wins; a loser destroys its own copy and uses the winner's. Objects
 * are never replaced once published. A slot is a std::atomic<T *> or a plain T * variable
 * that other code reads as such.
 */
#pragma once

#include <atomic>

namespace tesmar {

namespace detail {

template <typename T>
std::atomic<T *> &SlotOf(std::atomic<T *> &slot)
{
   return slot;
}

template <typename T>
std::atomic_ref<T *> SlotOf(T **storage)
{
   return std::atomic_ref<T *>(*storage);
}

}  // namespace detail

/*
 * Stores fresh into an empty slot: true if it did; false, with the object that stands in
 * *standing, when the slot was taken already. fresh stays the caller's either way.
 */
template <typename Slot, typename T>
bool TryPublish(Slot &&slotOrStorage, T *fresh, T **standing = nullptr)
{
   auto &&slot = detail::SlotOf(slotOrStorage);
   T *expected = nullptr;
   bool won = slot.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel,
                                           std::memory_order_acquire);
   if (standing != nullptr) {
      *standing = won ? fresh : expected;
   }
   return won;
}

/* Stores fresh unless the slot already holds an object (then destroys fresh); returns the object
 * that stands. */
template <typename Slot, typename T, typename Destroy>
T *PublishOnce(Slot &&slot, T *fresh, Destroy destroy)
{
   T *standing;
   if (!TryPublish(slot, fresh, &standing)) {
      destroy(fresh);
   }
   return standing;
}

/* Returns the published object, building and publishing one first when the slot is empty. */
template <typename Slot, typename Create, typename Destroy>
auto GetOrPublish(Slot &&slotOrStorage, Create create, Destroy destroy) -> decltype(create())
{
   auto *current = detail::SlotOf(slotOrStorage).load(std::memory_order_acquire);
   return current != nullptr ? current : PublishOnce(slotOrStorage, create(), destroy);
}

}  // namespace tesmar
