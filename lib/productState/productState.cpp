/*
 * Product state: the product's identity with overrides, derived values and the text form.
 */
#include "productState.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "escape.h"
#include "internal/publishOnce.h"
#include "log.h"
#include "productState/productStateInt.h"
#include "str.h"
#include "util.h"

#ifndef PRODUCT_STATE_VERSION
#error "PRODUCT_STATE_VERSION must name the built-in version"
#endif

const char kProductStateBuiltInVersion[] = PRODUCT_STATE_VERSION;

namespace {

constexpr char kEscapeByte = '#';
constexpr const char *kDefaultName = "Larkview";

/* Serialised items in their fixed order. */
constexpr const char *kKeyProduct = "product";
constexpr const char *kKeyName = "name";
constexpr const char *kKeyVersion = "version";
constexpr const char *kKeyBuildNumber = "buildnumber";
constexpr const char *kKeyCapabilities = "capabilities";
constexpr const char *kKeyBundleIdentifier = "bundleidentifier";

/* Exactly "#" and ";" are escaped, so a value never ends a piece early. */
struct EscapeTable {
   int bytes[256] = {};
   EscapeTable()
   {
      bytes[static_cast<unsigned char>(kEscapeByte)] = 1;
      bytes[static_cast<unsigned char>(';')] = 1;
   }
};
const EscapeTable kEscapeTable;

char *EscapeValue(const char *value)
{
   char *escaped = static_cast<char *>(
       Escape_Do(kEscapeByte, kEscapeTable.bytes, value, strlen(value), nullptr));
   VERIFY(escaped != nullptr);
   return escaped;
}

bool IsHexDigit(char c)
{
   return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

/*
 * The unescaped value of a piece, or NULL when it is malformed: an escape byte not followed by
 * two hex digits (the serialiser never writes one) or an escaped NUL.
 */
char *UnescapeValue(std::string_view value)
{
   for (size_t i = 0; i < value.size(); i++) {
      if (value[i] == kEscapeByte) {
         if (i + 2 >= value.size() || !IsHexDigit(value[i + 1]) || !IsHexDigit(value[i + 2])) {
            return nullptr;
         }
         i += 2;
      }
   }
   size_t length = 0;
   char *plain = static_cast<char *>(Escape_Undo(kEscapeByte, value.data(), value.size(), &length));
   if (plain == nullptr) {
      return nullptr;
   }
   if (strlen(plain) != length) {
      Util_ZeroFree(plain, length);
      return nullptr;
   }
   return plain;
}

/* A decimal number without sign, blanks or overflow. */
bool ParseUnsigned(std::string_view text, uint64_t max, uint64_t *out)
{
   if (text.empty()) {
      return false;
   }
   uint64_t value = 0;
   for (char c : text) {
      if (c < '0' || c > '9') {
         return false;
      }
      uint64_t digit = static_cast<uint64_t>(c - '0');
      if (value > (max - digit) / 10) {
         return false;
      }
      value = value * 10 + digit;
   }
   *out = value;
   return true;
}

}  // namespace

ProductState::~ProductState()
{
   free(name_.load());
   free(version_.load());
   free(bundleIdentifier_.load());
   free(buildString_.load());
   free(fullVersion_.load());
   free(versionNumber_.load());
   free(registryPath_.load());
}

bool ProductState::SetString(std::atomic<char *> &slot, const char *value)
{
   if (value == nullptr) {
      return false;
   }
   char *copy = Util_SafeStrdup(value);
   return tesmar::PublishOnce(slot, copy, Util_ZeroFreeString) == copy;
}

const char *ProductState::Publish(std::atomic<char *> &slot, char *fresh)
{
   return tesmar::PublishOnce(slot, fresh, [](char *loser) { free(loser); });
}

const char *ProductState::Name() const
{
   const char *name = name_.load(std::memory_order_acquire);
   return name != nullptr ? name : kDefaultName;
}

const char *ProductState::Version() const
{
   const char *version = version_.load(std::memory_order_acquire);
   return version != nullptr ? version : kProductStateBuiltInVersion;
}

const char *ProductState::BundleIdentifier() const
{
   const char *id = bundleIdentifier_.load(std::memory_order_acquire);
   return id != nullptr ? id : "";
}

const char *ProductState::BuildNumberString()
{
   const char *existing = buildString_.load(std::memory_order_acquire);
   if (existing != nullptr) {
      return existing;
   }
   char buf[24];
   uint32_t buildNumber = BuildNumber();
   if (buildNumber != 0) {
      Str_Sprintf(buf, sizeof buf, "build-%u", buildNumber);
   } else {
      Str_Sprintf(buf, sizeof buf, "build-%05u", 0u);
   }
   return Publish(buildString_, Util_SafeStrdup(buf));
}

const char *ProductState::FullVersion()
{
   const char *existing = fullVersion_.load(std::memory_order_acquire);
   if (existing != nullptr) {
      return existing;
   }
   return Publish(fullVersion_, Str_SafeAsprintf(nullptr, "%s %s", Version(), BuildNumberString()));
}

ProductVersionNumber ProductState::VersionNumber()
{
   auto parse = [this] {
      auto *fresh =
          static_cast<ProductVersionNumber *>(Util_SafeCalloc(1, sizeof(ProductVersionNumber)));
      const char *version = Version();
      if (strcmp(version, "e.x.p") == 0) {
         version = kProductStateBuiltInVersion;
      }
      /* Whatever is read stands; numbers the version lacks stay 0. */
      sscanf(version, "%u.%u.%u", &fresh->major, &fresh->minor, &fresh->patch);
      return fresh;
   };
   return *tesmar::GetOrPublish(versionNumber_, parse,
                                [](ProductVersionNumber *loser) { free(loser); });
}

const char *ProductState::RegistryPath()
{
   const char *existing = registryPath_.load(std::memory_order_acquire);
   if (existing != nullptr) {
      return existing;
   }
   return Publish(registryPath_, Str_SafeAsprintf(nullptr, "SOFTWARE\\Tesmar, Inc.\\%s", Name()));
}

char *ProductState::Serialize(uint32_t mask) const
{
   std::string text;
   auto appendNumber = [&](const char *key, unsigned long long value) {
      char *piece = Str_SafeAsprintf(nullptr, "%s=%llu;", key, value);
      text += piece;
      free(piece);
   };
   auto appendString = [&](const char *key, const char *value) {
      char *escaped = EscapeValue(value);
      char *piece = Str_SafeAsprintf(nullptr, "%s=%s;", key, escaped);
      text += piece;
      Util_ZeroFreeString(piece);
      Util_ZeroFreeString(escaped);
   };
   if (mask & PRODUCTSTATE_FLAG_PRODUCT) {
      uint32_t product = Product();
      appendNumber(kKeyProduct, product == 0 ? 1 : product);
   }
   if (mask & PRODUCTSTATE_FLAG_NAME) {
      appendString(kKeyName, Name());
   }
   if (mask & PRODUCTSTATE_FLAG_VERSION) {
      appendString(kKeyVersion, Version());
   }
   if (mask & PRODUCTSTATE_FLAG_BUILDNUMBER) {
      appendNumber(kKeyBuildNumber, BuildNumber());
   }
   if (mask & PRODUCTSTATE_FLAG_CAPABILITIES) {
      appendNumber(kKeyCapabilities, Capabilities());
   }
   if (mask & PRODUCTSTATE_FLAG_BUNDLEIDENTIFIER) {
      appendString(kKeyBundleIdentifier, BundleIdentifier());
   }
   char *result = Util_SafeStrdup(text.c_str());
   std::fill(text.begin(), text.end(), '\0');
   return result;
}

bool ProductState::ApplyPiece(const char *key, size_t keyLength, const char *value,
                                  size_t valueLength)
{
   std::string_view k(key, keyLength);
   std::string_view v(value, valueLength);
   uint64_t number;
   if (k == kKeyProduct) {
      return ParseUnsigned(v, UINT32_MAX, &number) && SetProduct(static_cast<uint32_t>(number));
   }
   if (k == kKeyBuildNumber) {
      return ParseUnsigned(v, UINT32_MAX, &number) && SetBuildNumber(static_cast<uint32_t>(number));
   }
   if (k == kKeyCapabilities) {
      return ParseUnsigned(v, UINT64_MAX, &number) && SetCapabilities(number);
   }
   bool (ProductState::*setter)(const char *) = nullptr;
   if (k == kKeyName) {
      setter = &ProductState::SetName;
   } else if (k == kKeyVersion) {
      setter = &ProductState::SetVersion;
   } else if (k == kKeyBundleIdentifier) {
      setter = &ProductState::SetBundleIdentifier;
   } else {
      return true; /* unknown keys belong to someone else */
   }
   char *plain = UnescapeValue(v);
   if (plain == nullptr) {
      return false;
   }
   bool applied = (this->*setter)(plain);
   Util_ZeroFreeString(plain);
   return applied;
}

bool ProductState::Deserialize(const char *text)
{
   if (text == nullptr) {
      return false;
   }
   bool allApplied = true;
   const char *piece = text;
   while (*piece != '\0') {
      const char *end = strchr(piece, ';');
      if (end == nullptr) {
         return false; /* an unterminated last piece */
      }
      const char *equals = static_cast<const char *>(memchr(piece, '=', end - piece));
      if (equals == nullptr || !ApplyPiece(piece, equals - piece, equals + 1, end - equals - 1)) {
         allApplied = false;
      }
      piece = end + 1;
   }
   return allApplied;
}

namespace {

ProductState &State()
{
   static ProductState *state = new ProductState; /* lives for the process */
   return *state;
}

}  // namespace

extern "C" {

uint32_t ProductState_GetProduct(void)
{
   return State().Product();
}

const char *ProductState_GetName(void)
{
   return State().Name();
}

const char *ProductState_GetVersion(void)
{
   return State().Version();
}

uint32_t ProductState_GetBuildNumber(void)
{
   return State().BuildNumber();
}

uint64_t ProductState_GetCapabilities(void)
{
   return State().Capabilities();
}

const char *ProductState_GetBundleIdentifier(void)
{
   return State().BundleIdentifier();
}

const char *ProductState_GetBuildNumberString(void)
{
   return State().BuildNumberString();
}

const char *ProductState_GetFullVersion(void)
{
   return State().FullVersion();
}

void ProductState_GetVersionNumber(unsigned int *major, unsigned int *minor, unsigned int *patch)
{
   ProductVersionNumber number = State().VersionNumber();
   if (major != nullptr) {
      *major = number.major;
   }
   if (minor != nullptr) {
      *minor = number.minor;
   }
   if (patch != nullptr) {
      *patch = number.patch;
   }
}

const char *ProductState_GetRegistryPath(void)
{
   return State().RegistryPath();
}

bool ProductState_SetProduct(uint32_t product)
{
   return State().SetProduct(product);
}

bool ProductState_SetName(const char *name)
{
   return State().SetName(name);
}

bool ProductState_SetVersion(const char *version)
{
   return State().SetVersion(version);
}

bool ProductState_SetBuildNumber(uint32_t buildNumber)
{
   return State().SetBuildNumber(buildNumber);
}

bool ProductState_SetCapabilities(uint64_t capabilities)
{
   return State().SetCapabilities(capabilities);
}

bool ProductState_SetBundleIdentifier(const char *bundleIdentifier)
{
   return State().SetBundleIdentifier(bundleIdentifier);
}

char *ProductState_Serialize(uint32_t mask)
{
   return State().Serialize(mask);
}

bool ProductState_Deserialize(const char *text)
{
   return State().Deserialize(text);
}

}  // extern "C"
