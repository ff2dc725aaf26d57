/*
 * One product-state record: overrides set once each, and derived values published once. The
 * library keeps one for the process; tests make their own.
 */
#ifndef TESMAR_PRODUCTSTATE_INT_H
#define TESMAR_PRODUCTSTATE_INT_H

#include <stdint.h>

#include <atomic>

/* A value that can be set once; readers see either nothing or the whole value. */
template <typename T>
class OnceValue {
  public:
   bool Set(T value)
   {
      int expected = UNSET;
      if (!state_.compare_exchange_strong(expected, SETTING, std::memory_order_acquire)) {
         return false;
      }
      value_ = value;
      state_.store(SET, std::memory_order_release);
      return true;
   }
   bool IsSet() const { return state_.load(std::memory_order_acquire) == SET; }
   T Get(T fallback) const { return IsSet() ? value_ : fallback; }

  private:
   enum { UNSET, SETTING, SET };
   std::atomic<int> state_{UNSET};
   T value_{};
};

struct ProductVersionNumber {
   unsigned int major;
   unsigned int minor;
   unsigned int patch;
};

class ProductState {
  public:
   ProductState() = default;
   ~ProductState();
   ProductState(const ProductState &) = delete;
   ProductState &operator=(const ProductState &) = delete;

   uint32_t Product() const { return product_.Get(1); }
   const char *Name() const;
   const char *Version() const;
   uint32_t BuildNumber() const { return buildNumber_.Get(0); }
   uint64_t Capabilities() const { return capabilities_.Get(0); }
   const char *BundleIdentifier() const;

   const char *BuildNumberString();
   const char *FullVersion();
   ProductVersionNumber VersionNumber();
   const char *RegistryPath();

   bool SetProduct(uint32_t value) { return product_.Set(value); }
   bool SetName(const char *value) { return SetString(name_, value); }
   bool SetVersion(const char *value) { return SetString(version_, value); }
   bool SetBuildNumber(uint32_t value) { return buildNumber_.Set(value); }
   bool SetCapabilities(uint64_t value) { return capabilities_.Set(value); }
   bool SetBundleIdentifier(const char *value) { return SetString(bundleIdentifier_, value); }

   char *Serialize(uint32_t mask) const;
   bool Deserialize(const char *text);

  private:
   static bool SetString(std::atomic<char *> &slot, const char *value);
   /* Publishes fresh unless a value is there already; returns the value that stands. */
   static const char *Publish(std::atomic<char *> &slot, char *fresh);
   bool ApplyPiece(const char *key, size_t keyLength, const char *value, size_t valueLength);

   OnceValue<uint32_t> product_;
   std::atomic<char *> name_{nullptr};
   std::atomic<char *> version_{nullptr};
   OnceValue<uint32_t> buildNumber_;
   OnceValue<uint64_t> capabilities_;
   std::atomic<char *> bundleIdentifier_{nullptr};

   std::atomic<char *> buildString_{nullptr};
   std::atomic<char *> fullVersion_{nullptr};
   std::atomic<ProductVersionNumber *> versionNumber_{nullptr};
   std::atomic<char *> registryPath_{nullptr};
};

/* The version compiled into the library ("major.minor.patch"). */
extern const char kProductStateBuiltInVersion[];

#endif
