/*
 * Property lists for the signature code: a strict reader of the XML and binary ("bplist00")
 * forms and an XML writer. The reader takes hostile bytes: nesting, sizes, references and
 * text are all checked, duplicate dictionary keys and ill-formed UTF-8 are refused, and
 * nothing outside the input is touched. It lets the set-user-ID opener read bundles without
 * linking a property-list library.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

namespace codesign {

struct PlistValue {
   enum class Kind : uint8_t { kDict, kArray, kString, kData, kInteger, kReal, kBool, kDate, kUid };

   Kind kind = Kind::kString;
   std::string bytes;              // kString (UTF-8), kData
   uint64_t integer = 0;           // kInteger (two's complement), kBool (0 or 1), kUid
   double real = 0;                // kReal; kDate: seconds since 2001-01-01 00:00:00 UTC
   std::vector<std::string> keys;  // kDict, parallel to items
   std::vector<PlistValue> items;  // kArray elements, kDict values

   /* The value of a dictionary's key, or null (also when this is not a dictionary). */
   const PlistValue *Get(std::string_view key) const;
   /* The string value of a dictionary's key, or null when absent or not a string. */
   const std::string *GetString(std::string_view key) const;
   /* Same kind and contents; reals compare by their bits, so a NaN equals itself. */
   bool operator==(const PlistValue &other) const;
};

/* Parses either form, told apart by the binary header. False for anything ill-formed, and
 * when memory runs out. */
bool PlistParse(const uint8_t *data, size_t size, PlistValue &out);

/* The XML form, with tab indentation and base64 data on one line. */
std::string PlistToXml(const PlistValue &value);

}  // namespace codesign
