/*
 * Property-list reading and writing: see propertyList.h.
 */
#include "propertyList.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <charconv>
#include <new>

#include "base64.h"
#include "unicodeBase.h"
#include "utf.h"

namespace codesign {
namespace {

using Kind = PlistValue::Kind;

constexpr int kMaxNesting = 64;
constexpr size_t kMaxValues = 1u << 20;  // shared references in a binary list can multiply nodes
constexpr int64_t kDaysFrom1970To2001 = 11323;

/* Well-formed UTF-8 without NUL characters. */
bool ValidText(std::string_view text)
{
   return text.find('\0') == std::string_view::npos &&
          Unicode_IsBufferValid(text.data(), (ssize_t)text.size(), STRING_ENCODING_UTF8);
}

void AppendCodePoint(std::string &out, uint32_t cp)
{
   uint8_t encoded[4];
   out.append((const char *)encoded, (size_t)(tesmar::utf::EncodeUtf8(cp, encoded) - encoded));
}

/* False when a dictionary names a key twice: the reader refuses what it could misread. */
bool UniqueKeys(const PlistValue &dict)
{
   std::vector<const std::string *> sorted;
   for (const std::string &key : dict.keys) {
      sorted.push_back(&key);
   }
   std::sort(sorted.begin(), sorted.end(), [](auto *a, auto *b) { return *a < *b; });
   return std::adjacent_find(sorted.begin(), sorted.end(),
                             [](auto *a, auto *b) { return *a == *b; }) == sorted.end();
}

/* Days since 1970-01-01 of a proleptic Gregorian date (the civil-from-days inverse). */
constexpr int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d)
{
   y -= m <= 2;
   int64_t era = (y >= 0 ? y : y - 399) / 400;
   unsigned yoe = (unsigned)(y - era * 400);
   unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
   unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
   return era * 146097 + (int64_t)doe - 719468;
}

/* Civil date of a count of days since 1970-01-01 (the inverse of DaysFromCivil). */
void CivilFromDays(int64_t z, int64_t &y, unsigned &m, unsigned &d)
{
   z += 719468;
   int64_t era = (z >= 0 ? z : z - 146096) / 146097;
   unsigned doe = (unsigned)(z - era * 146097);
   unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
   unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
   unsigned mp = (5 * doy + 2) / 153;
   d = doy - (153 * mp + 2) / 5 + 1;
   m = mp < 10 ? mp + 3 : mp - 9;
   y = (int64_t)yoe + era * 400 + (m <= 2);
}

/* The dates the XML form can write: years 0000 to 9999, in seconds since 2001. */
constexpr double kFirstDate = (DaysFromCivil(0, 1, 1) - kDaysFrom1970To2001) * 86400.0;
constexpr double kEndOfDates = (DaysFromCivil(10000, 1, 1) - kDaysFrom1970To2001) * 86400.0;

/* "YYYY-MM-DDTHH:MM:SSZ" as seconds since 2001. */
bool ParseDate(std::string_view text, double &seconds)
{
   static constexpr char kShape[] = "dddd-dd-ddTdd:dd:ddZ";
   if (text.size() != sizeof kShape - 1) {
      return false;
   }
   for (size_t i = 0; i < text.size(); i++) {
      bool digit = text[i] >= '0' && text[i] <= '9';
      if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) {
         return false;
      }
   }
   auto num = [&](size_t at, size_t len) {
      unsigned v = 0;
      std::from_chars(text.data() + at, text.data() + at + len, v);
      return v;
   };
   unsigned year = num(0, 4), month = num(5, 2), day = num(8, 2);
   unsigned hour = num(11, 2), minute = num(14, 2), second = num(17, 2);
   if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 59) {
      return false;
   }
   int64_t days = DaysFromCivil(year, month, day), checkYear;
   unsigned checkMonth, checkDay;
   CivilFromDays(days, checkYear, checkMonth, checkDay);
   if (checkDay != day) {
      return false;  // a day past the end of its month
   }
   days -= kDaysFrom1970To2001;
   seconds = (double)(days * 86400 + hour * 3600 + minute * 60 + second);
   return true;
}

bool ParseInteger(std::string_view text, uint64_t &value)
{
   bool negative = !text.empty() && text[0] == '-';
   text.remove_prefix(negative);
   uint64_t magnitude = 0;
   auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
   if (text.empty() || ec != std::errc() || end != text.data() + text.size() ||
       (negative && magnitude > (uint64_t)1 << 63)) {
      return false;
   }
   value = negative ? 0 - magnitude : magnitude;
   return true;
}

bool ParseReal(std::string_view text, double &value)
{
   auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
   return !text.empty() && ec == std::errc() && end == text.data() + text.size();
}

/* Base64 with whitespace between characters, as XML lists wrap it. */
bool DecodeData(std::string_view text, std::string &out)
{
   std::string compact;
   for (char c : text) {
      if (c != ' ' && c != '\t' && c != '\n' && c != '\r') {
         compact += c;
      }
   }
   size_t pad = compact.size() - compact.find_last_not_of('=') - 1;
   if (compact.size() % 4 != 0 || pad > 2 ||
       !Base64_ValidEncoding(compact.data(), compact.size() - pad) ||
       compact.find('=') < compact.size() - pad) {
      return false;
   }
   out.resize(compact.size() / 4 * 3);
   size_t length = 0;
   if (!compact.empty() && !Base64_ChunkDecode(compact.data(), compact.size(),
                                               (uint8_t *)out.data(), out.size(), &length)) {
      return false;
   }
   out.resize(length);
   return true;
}

/* The XML form: a plist element holding one value, with the prolog and comments around it. */
class XmlReader {
  public:
   explicit XmlReader(std::string_view text) : text_(text) {}

   bool Document(PlistValue &out)
   {
      if (text_.substr(0, 3) == "\xEF\xBB\xBF") {
         pos_ = 3;
      }
      std::string name;
      bool empty;
      if (!SkipMisc(true) || !Tag(name, empty) || name != "plist" || empty || !SkipMisc(false) ||
          !Value(out, 0) || !SkipMisc(false) || !Close("plist") || !SkipMisc(false)) {
         return false;
      }
      return pos_ == text_.size();
   }

  private:
   bool Starts(std::string_view s) const { return text_.substr(pos_, s.size()) == s; }

   bool SkipPast(std::string_view end)
   {
      size_t at = text_.find(end, pos_);
      if (at == std::string_view::npos) {
         return false;
      }
      pos_ = at + end.size();
      return true;
   }

   /* Whitespace and comments; in the prolog also the declaration and a document type. */
   bool SkipMisc(bool prolog)
   {
      for (;;) {
         pos_ = std::min(text_.find_first_not_of(" \t\r\n", pos_), text_.size());
         if (Starts("<!--")) {
            if (!SkipPast("-->")) {
               return false;
            }
         } else if (prolog && Starts("<?")) {
            if (!SkipPast("?>")) {
               return false;
            }
         } else if (prolog && Starts("<!DOCTYPE")) {
            // An internal subset could declare entities this reader does not expand.
            size_t end = text_.find('>', pos_);
            if (end == std::string_view::npos ||
                text_.substr(pos_, end - pos_).find('[') != std::string_view::npos) {
               return false;
            }
            pos_ = end + 1;
         } else {
            return true;
         }
      }
   }

   /* An opening tag "<name attr='v'...>" or "<name/>"; attributes are checked and skipped. */
   bool Tag(std::string &name, bool &empty)
   {
      if (!Starts("<")) {
         return false;
      }
      size_t start = ++pos_;
      while (pos_ < text_.size() && isalpha((unsigned char)text_[pos_])) {
         pos_++;
      }
      name.assign(text_.substr(start, pos_ - start));
      for (;;) {
         size_t spaced = pos_;
         pos_ = std::min(text_.find_first_not_of(" \t\r\n", pos_), text_.size());
         if (Starts(">") || Starts("/>")) {
            empty = text_[pos_] == '/';
            pos_ += empty ? 2 : 1;
            return !name.empty();
         }
         size_t eq = text_.find('=', pos_);
         if (pos_ == spaced || eq == std::string_view::npos || eq + 1 >= text_.size() ||
             (text_[eq + 1] != '"' && text_[eq + 1] != '\'')) {
            return false;
         }
         size_t close = text_.find(text_[eq + 1], eq + 2);
         if (close == std::string_view::npos ||
             text_.substr(pos_, close - pos_).find_first_of("<>") != std::string_view::npos) {
            return false;
         }
         pos_ = close + 1;
      }
   }

   bool Close(std::string_view name)
   {
      if (!Starts("</") || text_.substr(pos_ + 2, name.size()) != name) {
         return false;
      }
      pos_ += 2 + name.size();
      pos_ = std::min(text_.find_first_not_of(" \t\r\n", pos_), text_.size());
      if (!Starts(">")) {
         return false;
      }
      pos_++;
      return true;
   }

   /* Character data up to the element's end tag: references, CDATA and comments resolved. */
   bool Text(std::string_view name, bool empty, std::string &out)
   {
      out.clear();
      if (empty) {
         return true;
      }
      for (;;) {
         size_t stop = text_.find_first_of("<&", pos_);
         if (stop == std::string_view::npos) {
            return false;
         }
         out.append(text_.substr(pos_, stop - pos_));
         pos_ = stop;
         if (Starts("<![CDATA[")) {
            size_t end = text_.find("]]>", pos_ + 9);
            if (end == std::string_view::npos) {
               return false;
            }
            out.append(text_.substr(pos_ + 9, end - pos_ - 9));
            pos_ = end + 3;
         } else if (Starts("<!--")) {
            if (!SkipPast("-->")) {
               return false;
            }
         } else if (Starts("&")) {
            if (!Reference(out)) {
               return false;
            }
         } else {
            return Close(name) && ValidText(out);
         }
      }
   }

   bool Reference(std::string &out)
   {
      size_t semi = text_.find(';', pos_);
      if (semi == std::string_view::npos || semi - pos_ > 10) {
         return false;
      }
      std::string_view ref = text_.substr(pos_ + 1, semi - pos_ - 1);
      pos_ = semi + 1;
      static constexpr std::pair<std::string_view, char> kNamed[] = {
          {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
      for (const auto &[entity, c] : kNamed) {
         if (ref == entity) {
            out += c;
            return true;
         }
      }
      bool hex = ref.substr(0, 2) == "#x";
      if (ref.size() < 2 || ref[0] != '#' || ref.size() == (hex ? 2u : 1u)) {
         return false;
      }
      uint32_t cp = 0;
      const char *digits = ref.data() + (hex ? 2 : 1);
      auto [end, ec] = std::from_chars(digits, ref.data() + ref.size(), cp, hex ? 16 : 10);
      if (ec != std::errc() || end != ref.data() + ref.size() || cp == 0 ||
          cp > tesmar::utf::kMaxCodePoint || tesmar::utf::IsSurrogate(cp)) {
         return false;
      }
      AppendCodePoint(out, cp);
      return true;
   }

   bool Value(PlistValue &out, int depth)
   {
      std::string name, text;
      bool empty;
      if (depth > kMaxNesting || !Tag(name, empty)) {
         return false;
      }
      if (name == "dict" || name == "array") {
         bool dict = name == "dict";
         out.kind = dict ? Kind::kDict : Kind::kArray;
         while (!empty) {
            if (!SkipMisc(false)) {
               return false;
            }
            if (Starts("</")) {
               return Close(name) && UniqueKeys(out);
            }
            std::string key;
            bool emptyKey;
            if (dict && (!Tag(key, emptyKey) || key != "key" || !Text("key", emptyKey, key) ||
                         !SkipMisc(false))) {
               return false;
            }
            PlistValue item;
            if (!Value(item, depth + 1)) {
               return false;
            }
            if (dict) {
               out.keys.push_back(std::move(key));
            }
            out.items.push_back(std::move(item));
         }
         return true;
      }
      if (name == "true" || name == "false") {
         out.kind = Kind::kBool;
         out.integer = name == "true";
         return Text(name, empty, text) && text.empty();
      }
      if (!Text(name, empty, text)) {
         return false;
      }
      if (name == "string") {
         out.kind = Kind::kString;
         out.bytes = std::move(text);
         return true;
      }
      if (name == "data") {
         out.kind = Kind::kData;
         return DecodeData(text, out.bytes);
      }
      if (name == "integer") {
         out.kind = Kind::kInteger;
         return ParseInteger(text, out.integer);
      }
      if (name == "real") {
         out.kind = Kind::kReal;
         return ParseReal(text, out.real);
      }
      if (name == "date") {
         out.kind = Kind::kDate;
         return ParseDate(text, out.real);
      }
      return false;
   }

   std::string_view text_;
   size_t pos_ = 0;
};

/* The binary form: objects addressed through an offset table described by a 32-byte trailer. */
class BinaryReader {
  public:
   BinaryReader(const uint8_t *data, size_t size) : data_(data), size_(size) {}

   bool Document(PlistValue &out)
   {
      if (size_ < 8 + 32 + 1) {
         return false;
      }
      const uint8_t *trailer = data_ + size_ - 32;
      offsetSize_ = trailer[6];
      refSize_ = trailer[7];
      count_ = Big(trailer + 8, 8);
      uint64_t top = Big(trailer + 16, 8);
      tableOffset_ = Big(trailer + 24, 8);
      uint64_t tableEnd = size_ - 32;
      if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8 || count_ == 0 ||
          top >= count_ || tableOffset_ < 9 || tableOffset_ > tableEnd ||
          count_ > (tableEnd - tableOffset_) / offsetSize_) {
         return false;
      }
      onPath_.assign(count_, false);
      return Object(top, out, 0);
   }

  private:
   static uint64_t Big(const uint8_t *p, size_t n)
   {
      uint64_t v = 0;
      for (size_t i = 0; i < n; i++) {
         v = v << 8 | p[i];
      }
      return v;
   }

   /* A length from the marker's low nibble, or from the integer object after it. */
   bool Length(uint64_t &at, uint8_t marker, uint64_t &length)
   {
      length = marker & 0xF;
      if (length != 0xF) {
         return true;
      }
      if (at >= tableOffset_ || (data_[at] & 0xF0) != 0x10 || (data_[at] & 0xF) > 3) {
         return false;
      }
      size_t n = (size_t)1 << (data_[at] & 0xF);
      if (n > tableOffset_ - at - 1) {
         return false;
      }
      length = Big(data_ + at + 1, n);
      at += 1 + n;
      return true;
   }

   bool Object(uint64_t ref, PlistValue &out, int depth)
   {
      if (ref >= count_ || onPath_[ref] || depth > kMaxNesting || ++values_ > kMaxValues) {
         return false;
      }
      uint64_t at = Big(data_ + tableOffset_ + ref * offsetSize_, offsetSize_);
      if (at < 8 || at >= tableOffset_) {
         return false;
      }
      uint8_t marker = data_[at++];
      uint64_t available = tableOffset_ - at;
      uint64_t length = 0;
      switch (marker >> 4) {
         case 0x0:
            if (marker != 0x08 && marker != 0x09) {
               return false;  // null and fill bytes are not values
            }
            out.kind = Kind::kBool;
            out.integer = marker == 0x09;
            return true;
         case 0x1: {
            unsigned n = marker & 0xF;
            if (n > 4 || ((size_t)1 << n) > available) {
               return false;
            }
            // 16-byte integers carry unsigned values above the signed range in their low half.
            if (n == 4 && Big(data_ + at, 8) != 0) {
               return false;
            }
            out.kind = Kind::kInteger;
            out.integer = n == 4 ? Big(data_ + at + 8, 8) : Big(data_ + at, (size_t)1 << n);
            return true;
         }
         case 0x2:
         case 0x3: {
            unsigned n = marker & 0xF;
            bool date = marker >> 4 == 3;
            if ((date ? n != 3 : n != 2 && n != 3) || ((size_t)1 << n) > available) {
               return false;
            }
            uint64_t bits = Big(data_ + at, (size_t)1 << n);
            if (n == 2) {
               float f;
               uint32_t b32 = (uint32_t)bits;
               memcpy(&f, &b32, 4);
               out.real = f;
            } else {
               memcpy(&out.real, &bits, 8);
            }
            out.kind = date ? Kind::kDate : Kind::kReal;
            return !date || (out.real >= kFirstDate && out.real < kEndOfDates);
         }
         case 0x4:
         case 0x5:
         case 0x6: {
            uint64_t unit = marker >> 4 == 6 ? 2 : 1;
            if (!Length(at, marker, length) || length > (tableOffset_ - at) / unit) {
               return false;
            }
            const char *bytes = (const char *)data_ + at;
            out.kind = marker >> 4 == 4 ? Kind::kData : Kind::kString;
            if (marker >> 4 != 6) {
               out.bytes.assign(bytes, (size_t)length);
               return marker >> 4 == 4 || ValidText(out.bytes);
            }
            return Utf16(data_ + at, (size_t)length, out.bytes);
         }
         case 0x8: {
            size_t n = (size_t)(marker & 0xF) + 1;
            if (n > 8 || n > available) {
               return false;
            }
            out.kind = Kind::kUid;
            out.integer = Big(data_ + at, n);
            return true;
         }
         case 0xA:
         case 0xD: {
            bool dict = marker >> 4 == 0xD;
            if (!Length(at, marker, length) ||
                length > (tableOffset_ - at) / refSize_ / (dict ? 2 : 1)) {
               return false;
            }
            out.kind = dict ? Kind::kDict : Kind::kArray;
            onPath_[ref] = true;
            for (uint64_t i = 0; i < length; i++) {
               PlistValue key, item;
               uint64_t valueRef = Big(data_ + at + (i + (dict ? length : 0)) * refSize_, refSize_);
               if (dict && (!Object(Big(data_ + at + i * refSize_, refSize_), key, depth + 1) ||
                            key.kind != Kind::kString)) {
                  return false;
               }
               if (!Object(valueRef, item, depth + 1)) {
                  return false;
               }
               if (dict) {
                  out.keys.push_back(std::move(key.bytes));
               }
               out.items.push_back(std::move(item));
            }
            onPath_[ref] = false;
            return UniqueKeys(out);
         }
         default:
            return false;  // sets and the reserved markers
      }
   }

   static bool Utf16(const uint8_t *p, size_t units, std::string &out)
   {
      out.clear();
      for (size_t i = 0; i < units;) {
         uint32_t first = Big(p + 2 * i, 2), second = i + 1 < units ? Big(p + 2 * i + 2, 2) : 0;
         uint32_t cp;
         int used = tesmar::utf::DecodeUtf16(first, second, i + 1 < units, &cp);
         if (used == 0 || cp == 0) {
            return false;
         }
         AppendCodePoint(out, cp);
         i += (size_t)used;
      }
      return true;
   }

   const uint8_t *data_;
   size_t size_;
   unsigned offsetSize_ = 0, refSize_ = 0;
   uint64_t count_ = 0, tableOffset_ = 0;
   size_t values_ = 0;
   std::vector<bool> onPath_;  // references being read: a reference back to one is a cycle
};

void AppendEscaped(std::string &out, std::string_view text)
{
   for (char c : text) {
      switch (c) {
         case '<':
            out += "&lt;";
            break;
         case '>':
            out += "&gt;";
            break;
         case '&':
            out += "&amp;";
            break;
         default:
            out += c;
      }
   }
}

void AppendXml(std::string &out, const PlistValue &value, const std::string &indent)
{
   auto element = [&](const std::string &at, const char *name, std::string_view body) {
      out += at + "<" + name + ">";
      AppendEscaped(out, body);
      out += std::string("</") + name + ">\n";
   };
   char number[64];
   switch (value.kind) {
      case Kind::kDict:
      case Kind::kArray: {
         const char *name = value.kind == Kind::kDict ? "dict" : "array";
         out += indent + "<" + name + (value.items.empty() ? "/>\n" : ">\n");
         for (size_t i = 0; i < value.items.size(); i++) {
            if (value.kind == Kind::kDict) {
               element(indent + "\t", "key", value.keys[i]);
            }
            AppendXml(out, value.items[i], indent + "\t");
         }
         if (!value.items.empty()) {
            out += indent + "</" + name + ">\n";
         }
         return;
      }
      case Kind::kString:
         return element(indent, "string", value.bytes);
      case Kind::kData: {
         char *encoded = nullptr;
         bool ok =
             Base64_EasyEncode((const uint8_t *)value.bytes.data(), value.bytes.size(), &encoded);
         element(indent, "data", ok ? encoded : "");
         free(encoded);
         return;
      }
      case Kind::kInteger:
         return element(indent, "integer", std::to_string(value.integer));
      case Kind::kBool:
         out += indent + (value.integer != 0 ? "<true/>\n" : "<false/>\n");
         return;
      case Kind::kReal: {
         char *end = std::to_chars(number, number + sizeof number, value.real).ptr;
         return element(indent, "real", std::string_view(number, (size_t)(end - number)));
      }
      case Kind::kDate: {
         // Whole seconds, the precision of the XML form.
         int64_t seconds = (int64_t)value.real;
         seconds -= seconds > value.real;
         int64_t days = seconds / 86400, rest = seconds % 86400;
         if (rest < 0) {
            rest += 86400;
            days--;
         }
         int64_t year;
         unsigned month, day;
         CivilFromDays(days + kDaysFrom1970To2001, year, month, day);
         snprintf(number, sizeof number, "%04lld-%02u-%02uT%02u:%02u:%02uZ", (long long)year, month,
                  day, (unsigned)(rest / 3600), (unsigned)(rest / 60 % 60), (unsigned)(rest % 60));
         return element(indent, "date", number);
      }
      case Kind::kUid:
         // The XML form has no reference type; it is written as the dictionary that stands for one.
         out += indent + "<dict>\n";
         element(indent + "\t", "key", "CF$UID");
         element(indent + "\t", "integer", std::to_string(value.integer));
         out += indent + "</dict>\n";
         return;
   }
}

}  // namespace

const PlistValue *PlistValue::Get(std::string_view key) const
{
   if (kind != Kind::kDict) {
      return nullptr;
   }
   for (size_t i = 0; i < keys.size(); i++) {
      if (keys[i] == key) {
         return &items[i];
      }
   }
   return nullptr;
}

const std::string *PlistValue::GetString(std::string_view key) const
{
   const PlistValue *value = Get(key);
   return value != nullptr && value->kind == Kind::kString ? &value->bytes : nullptr;
}

bool PlistValue::operator==(const PlistValue &other) const
{
   return kind == other.kind && bytes == other.bytes && integer == other.integer &&
          memcmp(&real, &other.real, sizeof real) == 0 && keys == other.keys &&
          items == other.items;
}

bool PlistParse(const uint8_t *data, size_t size, PlistValue &out)
{
   try {
      out = PlistValue();
      if (size >= 8 && memcmp(data, "bplist00", 8) == 0) {
         return BinaryReader(data, size).Document(out);
      }
      return XmlReader(std::string_view((const char *)data, size)).Document(out);
   } catch (const std::bad_alloc &) {
      return false;
   }
}

std::string PlistToXml(const PlistValue &value)
{
   std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
   AppendXml(out, value, "");
   return out + "</plist>\n";
}

}  // namespace codesign
