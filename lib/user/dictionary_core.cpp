/*
 * Dictionary entries: the name index, typed values, their parsing and formatting, the typed
 * gets and sets, and the dump.
 */
#include <errno.h>
#include <math.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "dictionary.h"
#include "log.h"
#include "str.h"
#include "user/dictionaryInt.h"
#include "util.h"

namespace tesmar::dict {

namespace {

constexpr uint32_t kMinBuckets = 64;
constexpr uint32_t kMaxBuckets = 1u << 24;

void *IndexKey(uint64_t hash)
{
   return reinterpret_cast<void *>(static_cast<uintptr_t>(hash));
}

void Link(Dictionary *dict, Entry *e)
{
   // The table gives back the value it holds, which is e itself when e was inserted.
   void *head = HashTable_LookupOrInsert(dict->index, IndexKey(e->hash), e);
   e->sameHash = nullptr;
   if (head != e) {
      e->sameHash = static_cast<Entry *>(head)->sameHash;
      static_cast<Entry *>(head)->sameHash = e;
   }
}

void Rebuild(Dictionary *dict, uint32_t buckets)
{
   if (dict->index != nullptr) {
      HashTable_Free(dict->index);
   }
   dict->buckets = buckets;
   dict->index = HashTable_Alloc(buckets, HASH_INT_KEY, nullptr);
   for (Entry *entry : dict->entries) {
      entry->hash = NameHash(entry->NameView());
      Link(dict, entry);
   }
}

enum class Parse { kOk, kInvalid, kOutOfRange };

bool IsOneOf(const char *text, std::initializer_list<const char *> words)
{
   for (const char *w : words) {
      if (strcasecmp(text, w) == 0) {
         return true;
      }
   }
   return false;
}

/* Empty text reads as true, deliberately. */
Parse ParseBool(const SecureString &text, bool *out)
{
   if (text.size() != strlen(text.c_str())) {
      return Parse::kInvalid;
   }
   if (text.empty() || IsOneOf(text.c_str(), {"true", "t", "yes", "y", "on", "1"})) {
      *out = true;
      return Parse::kOk;
   }
   if (IsOneOf(text.c_str(), {"false", "f", "no", "n", "off", "0"})) {
      *out = false;
      return Parse::kOk;
   }
   return Parse::kInvalid;
}

Parse ParseTriState(const SecureString &text, int32_t *out)
{
   bool b;
   if (ParseBool(text, &b) == Parse::kOk) {
      *out = b ? 1 : 0;
      return Parse::kOk;
   }
   if (IsOneOf(text.c_str(), {"default", "dontcare", "auto"})) {
      *out = -1;
      return Parse::kOk;
   }
   return Parse::kInvalid;
}

bool UsedWhole(const SecureString &text, const char *end)
{
   return end != text.c_str() && end == text.c_str() + text.size();
}

/* 64-bit parse, then the unsigned parse on overflow; truncated to 32 bits without a word. */
Parse ParseLong(const SecureString &text, int32_t *out)
{
   char *end;
   errno = 0;
   long long value = strtoll(text.c_str(), &end, 0);
   if (errno == ERANGE) {
      errno = 0;
      unsigned long long u = strtoull(text.c_str(), &end, 0);
      if (errno == ERANGE) {
         return Parse::kOutOfRange;
      }
      value = (long long)u;
   }
   if (!UsedWhole(text, end)) {
      return Parse::kInvalid;
   }
   *out = (int32_t)(uint32_t)(unsigned long long)value;
   return Parse::kOk;
}

Parse ParseInt64(const SecureString &text, int64_t *out)
{
   char *end;
   errno = 0;
   unsigned long long value = strtoull(text.c_str(), &end, 0);
   if (errno == ERANGE) {
      return Parse::kOutOfRange;
   }
   if (!UsedWhole(text, end)) {
      return Parse::kInvalid;
   }
   *out = (int64_t)value;
   return Parse::kOk;
}

Parse ParseDouble(const SecureString &text, double *out)
{
   char *end;
   errno = 0;
   double value = strtod(text.c_str(), &end);
   if (errno == ERANGE && fabs(value) == HUGE_VAL) {
      return Parse::kOutOfRange;
   }
   if (!UsedWhole(text, end)) {
      return Parse::kInvalid;
   }
   *out = value;
   return Parse::kOk;
}

const char *TriStateText(int32_t value, const char *defaultWord)
{
   return value == 1 ? "TRUE" : value == 0 ? "FALSE" : defaultWord;
}

/* Copies a typed entry's value into result. */
void ValueOf(const Entry &e, Value *result)
{
   result->b = e.boolValue;
   result->l = e.longValue;
   result->d = e.doubleValue;
   result->i = e.int64Value;
}

/* Parses the entry's text as type; on success stores it in result. */
Parse ParseAs(const Entry &e, int type, Value *result)
{
   switch (type) {
   case DICT_BOOL:
      return ParseBool(e.text, &result->b);
   case DICT_LONG:
      return ParseLong(e.text, &result->l);
   case DICT_DOUBLE:
      return ParseDouble(e.text, &result->d);
   case DICT_TRISTATE:
      return ParseTriState(e.text, &result->l);
   default:
      return ParseInt64(e.text, &result->i);
   }
}

void ReportBadValue(const Entry &e, int type, Parse failure, const Value &def, MsgList **msgs)
{
   const char *text = e.text.c_str();
   const char *name = e.name;
   bool range = failure == Parse::kOutOfRange;
   switch (type) {
   case DICT_BOOL:
      MsgList_Append(msgs,
                     "@&!*@*@(msg.dictionary.notBoolean)Value \"%s\" for variable \"%s\" is not "
                     "a valid boolean value. Using value \"%s\".\n",
                     text, name, def.b ? "TRUE" : "FALSE");
      break;
   case DICT_LONG:
      if (range) {
         MsgList_Append(msgs,
                        "@&!*@*@(msg.dictionary.integerOutOfRange)Value \"%s\" for variable "
                        "\"%s\" is out of range. Using value \"%d\".\n",
                        text, name, def.l);
      } else {
         MsgList_Append(msgs,
                        "@&!*@*@(msg.dictionary.notInteger)Value \"%s\" for variable \"%s\" is "
                        "not a valid integer value. Using value \"%d\".\n",
                        text, name, def.l);
      }
      break;
   case DICT_DOUBLE:
      if (range) {
         MsgList_Append(msgs,
                        "@&!*@*@(msg.dictionary.doubleOutOfRange)Value \"%s\" for variable "
                        "\"%s\" is out of range. Using value \"%f\".\n",
                        text, name, def.d);
      } else {
         MsgList_Append(msgs,
                        "@&!*@*@(msg.dictionary.notFloat)Value \"%s\" for variable \"%s\" is not "
                        "a valid floating point value. Using value \"%f\".\n",
                        text, name, def.d);
      }
      break;
   case DICT_TRISTATE:
      MsgList_Append(msgs,
                     "@&!*@*@(msg.dictionary.notTristate)Value \"%s\" for variable \"%s\" is not "
                     "a valid tristate value. Using value \"%s\".\n",
                     text, name, TriStateText(def.l, "default"));
      break;
   default:
      if (range) {
         MsgList_Append(msgs,
                        "@&!*@*@(msg.dictionary.integer64OutOfRange)Value \"%s\" for variable "
                        "\"%s\" is out of range. Using value \"%lld\".\n",
                        text, name, (long long)def.i);
      } else {
         MsgList_Append(msgs,
                        "@&!*@*@(msg.dictionary.notInteger64)Value \"%s\" for variable \"%s\" is "
                        "not a valid integer value. Using value \"%lld\".\n",
                        text, name, (long long)def.i);
      }
      break;
   }
}

SecureString FormatTyped(int type, const Value &v)
{
   char buf[64];
   switch (type) {
   case DICT_BOOL:
      return SecureString(v.b ? "TRUE" : "FALSE");
   case DICT_LONG:
      Str_Sprintf(buf, sizeof buf, "%d", v.l);
      return SecureString(buf);
   case DICT_DOUBLE:
      Str_SprintfCLocale(buf, sizeof buf, "%.9g", v.d);
      return SecureString(buf);
   case DICT_TRISTATE:
      return SecureString(TriStateText(v.l, "DEFAULT"));
   case DICT_INT64:
      Str_Sprintf(buf, sizeof buf, "%lld", (long long)v.i);
      return SecureString(buf);
   default:
      Panic("Dictionary internal error - unknown parameter type\n");
   }
}

}  // namespace

/* The index key: a 64-bit hash of the name with each byte's 0x20 bit set, so that case does
 * not matter; names that share a hash are chained through Entry::sameHash. Never 0. */
uint64_t NameHash(std::string_view name)
{
   constexpr uint64_t kFold = 0x2020202020202020ull;
   constexpr uint64_t kMul = 0xbf58476d1ce4e5b9ull;
   const char *p = name.data();
   size_t n = name.size();
   uint64_t h = 0x9e3779b97f4a7c15ull ^ n;
   for (; n >= 8; p += 8, n -= 8) {
      uint64_t w;
      memcpy(&w, p, 8);
      h = (h ^ (w | kFold)) * kMul;
      h ^= h >> 29;
   }
   if (n > 0) {
      uint64_t w = 0;
      memcpy(&w, p, n);
      h = (h ^ (w | (kFold >> (8 * (8 - n))))) * kMul;
   }
   h ^= h >> 32;
   return h | 1;
}

/*
 * Lookups by name, without regard to case: the hash picks the chain and the name the entry.
 */
Entry *Find(const Dictionary *dict, std::string_view name, uint64_t hash)
{
   void *value = nullptr;
   if (dict->index == nullptr || !HashTable_Lookup(dict->index, IndexKey(hash), &value)) {
      return nullptr;
   }
   Entry *e = static_cast<Entry *>(value);
   while (e != nullptr && !NameEquals(e->NameView(), name)) {
      e = e->sameHash;
   }
   return e;
}

Entry *Find(const Dictionary *dict, std::string_view name)
{
   return Find(dict, name, NameHash(name));
}

/* Grows the index so that it keeps at most about two entries per bucket. */
void Reserve(Dictionary *dict, size_t count)
{
   size_t wanted = dict->entries.size() + count;
   if (dict->index != nullptr && wanted <= (size_t)dict->buckets * 2) {
      return;
   }
   uint32_t buckets = kMinBuckets;
   while (buckets < wanted && buckets < kMaxBuckets) {
      buckets <<= 1;
   }
   if (dict->index == nullptr || buckets > dict->buckets) {
      Rebuild(dict, buckets);
   }
}

/*
 * The typed get: the value as type, or def when the entry is missing or its value does not
 * parse (then with a message). An untyped entry that parses takes the type, so the next get of
 * that type reads the stored value without parsing; an entry set as a string keeps its type.
 * Any code other than the six value types is a programming error.
 */
bool GetTypedEntry(Entry *e, int type, const Value &def, Value *result, MsgList **msgs)
{
   switch (type) {
   case DICT_STRING:
   case DICT_BOOL:
   case DICT_LONG:
   case DICT_DOUBLE:
   case DICT_TRISTATE:
   case DICT_INT64:
      break;
   default:
      NOT_REACHED();
   }
   *result = def;
   if (e == nullptr) {
      return false;
   }
   if (e->type == type || (type == DICT_STRING && IsStringType(e->type))) {
      ValueOf(*e, result);
      e->type = type;
      return true;
   }
   if (type == DICT_STRING) {
      return true;
   }
   Value parsed = def;
   Parse outcome = ParseAs(*e, type, &parsed);
   if (outcome != Parse::kOk) {
      ReportBadValue(*e, type, outcome, def, msgs);
      return false;
   }
   *result = parsed;
   if (e->type == DICT_ANY) {
      e->type = type;
      e->boolValue = parsed.b;
      e->longValue = parsed.l;
      e->doubleValue = parsed.d;
      e->int64Value = parsed.i;
   }
   return true;
}

Entry *Find(const Dictionary *dict, const char *name)
{
   return Find(dict, std::string_view(name));
}

Entry *Add(Dictionary *dict, std::string_view name, uint64_t hash)
{
   Reserve(dict, 1);
   if (dict->chunkUsed == kEntryChunk) {
      dict->entryChunks.push_back(std::make_unique<Entry[]>(kEntryChunk));
      dict->chunkUsed = 0;
   }
   Entry *e = &dict->entryChunks.back()[dict->chunkUsed++];
   SecureString *arena = dict->nameArena;
   if (arena != nullptr && arena->capacity() - arena->size() > name.size()) {
      size_t offset = arena->size();
      arena->append(name.data(), name.size());
      arena->push_back('\0');
      e->name = arena->data() + offset;
   } else {
      e->ownedName.assign(name.data(), name.size());
      e->name = e->ownedName.c_str();
   }
   e->nameLength = name.size();
   e->hash = hash;
   dict->entries.push_back(e);
   Link(dict, e);
   return e;
}

Entry *Add(Dictionary *dict, std::string_view name)
{
   return Add(dict, name, NameHash(name));
}

namespace {

bool GetTyped(Dictionary *dict, const char *name, int type, const Value &def, Value *result,
              MsgList **msgs)
{
   return GetTypedEntry(Find(dict, name), type, def, result, msgs);
}

bool IsSecretName(const char *name)
{
   size_t length = strlen(name);
   return strcasecmp(name, "dataFileKey") == 0 || strcasecmp(name, "ancestorDataFileKeys") == 0 ||
          strcasecmp(name, "annotation") == 0 || strncasecmp(name, "guestinfo.", 10) == 0 ||
          (length >= 5 && strcasecmp(name + length - 4, ".key") == 0);
}

/* Sets an entry to a typed value; unchanged text leaves it unmodified so its line stays. */
void SetTyped(Dictionary *dict, const char *name, int type, const Value &value,
              std::string_view text)
{
   Entry *e = Find(dict, name);
   if (e == nullptr) {
      e = Add(dict, name);
      e->modified = true;
   } else if (e->text.View() != text ||
              (e->type != type && !(IsStringType(e->type) && IsStringType(type)))) {
      e->modified = true;
   }
   e->type = type;
   e->boolValue = value.b;
   e->longValue = value.l;
   e->doubleValue = value.d;
   e->int64Value = value.i;
   if (e->text.View() != text) {
      e->text.Wipe();
      e->text.assign(text.data(), text.size());
   }
}

}  // namespace

void ClearAll(Dictionary *dict)
{
   if (dict->index != nullptr) {
      HashTable_Free(dict->index);
      dict->index = nullptr;
      dict->buckets = 0;
   }
   dict->lines.clear();
   dict->entries.clear();
   dict->entryChunks.clear();
   dict->chunkUsed = kEntryChunk;
   dict->sources.clear();
   dict->encoding = kEncodingUnknown;
   dict->upgradedToUtf8 = false;
   dict->lineNumber = 0;
}

bool IsStringType(int type)
{
   return type == DICT_ANY || type == DICT_STRING;
}

SecureString FormatValue(const Entry &e)
{
   if (IsStringType(e.type)) {
      return e.text;
   }
   Value v;
   ValueOf(e, &v);
   return FormatTyped(e.type, v);
}

void AppendMsg(MsgList **msgs, const char *idFmt, ...)
{
   va_list args;
   va_start(args, idFmt);
   MsgList_VAppend(msgs, idFmt, args);
   va_end(args);
}

const char *FileLabel(const Dictionary *dict)
{
   return dict->hasFileName ? dict->fileName.c_str() : nullptr;
}

char *GetStringEntry(Entry *e, const char *defaultValue)
{
   if (e == nullptr) {
      return defaultValue != nullptr ? Util_SafeStrdup(defaultValue) : nullptr;
   }
   if (e->type == DICT_ANY) {
      e->type = DICT_STRING;
   }
   return Util_SafeStrdup(e->text.c_str());
}

}  // namespace tesmar::dict

using namespace tesmar::dict;

extern "C" {

Dictionary *Dictionary_Create(void)
{
   return new Dictionary();
}

void Dictionary_Free(Dictionary *dict)
{
   if (dict == nullptr) {
      return;
   }
   int error = errno;
   ClearAll(dict);
   delete dict;
   errno = error;
}

void Dictionary_Clear(Dictionary *dict)
{
   ClearAll(dict);
   if (dict->clearHook != nullptr) {
      dict->clearHook(dict);
   }
}

StringEncoding Dictionary_GetEncoding(const Dictionary *dict)
{
   return dict->encoding;
}

bool Dictionary_IsDefined(const Dictionary *dict, const char *name)
{
   return Find(dict, name) != nullptr;
}

int Dictionary_GetType(const Dictionary *dict, const char *name)
{
   const Entry *e = Find(dict, name);
   return e != nullptr ? e->type : -1;
}

size_t Dictionary_NumEntries(const Dictionary *dict)
{
   return dict->entries.size();
}

const char *Dictionary_NameAt(const Dictionary *dict, size_t index)
{
   return index < dict->entries.size() ? dict->entries[index]->name : nullptr;
}

char *Dictionary_GetString(Dictionary *dict, const char *defaultValue, const char *name,
                           MsgList **msgs)
{
   return GetStringEntry(Find(dict, name), defaultValue);
}

bool Dictionary_GetBool(Dictionary *dict, bool defaultValue, const char *name, MsgList **msgs)
{
   Value def;
   def.b = defaultValue;
   Value result;
   GetTyped(dict, name, DICT_BOOL, def, &result, msgs);
   return result.b;
}

int32_t Dictionary_GetLong(Dictionary *dict, int32_t defaultValue, const char *name,
                           MsgList **msgs)
{
   Value def;
   def.l = defaultValue;
   Value result;
   GetTyped(dict, name, DICT_LONG, def, &result, msgs);
   return result.l;
}

double Dictionary_GetDouble(Dictionary *dict, double defaultValue, const char *name,
                            MsgList **msgs)
{
   Value def;
   def.d = defaultValue;
   Value result;
   GetTyped(dict, name, DICT_DOUBLE, def, &result, msgs);
   return result.d;
}

int32_t Dictionary_GetTriState(Dictionary *dict, int32_t defaultValue, const char *name,
                               MsgList **msgs)
{
   Value def;
   def.l = defaultValue;
   Value result;
   GetTyped(dict, name, DICT_TRISTATE, def, &result, msgs);
   return result.l;
}

int64_t Dictionary_GetInt64(Dictionary *dict, int64_t defaultValue, const char *name,
                            MsgList **msgs)
{
   Value def;
   def.i = defaultValue;
   Value result;
   GetTyped(dict, name, DICT_INT64, def, &result, msgs);
   return result.i;
}

char *Dictionary_GetTypedText(Dictionary *dict, const char *name, int type, MsgList **msgs)
{
   Value result;
   if (!GetTyped(dict, name, type, Value(), &result, msgs)) {
      return nullptr;
   }
   Entry *e = Find(dict, name);
   return Util_SafeStrdup(IsStringType(type) ? e->text.c_str() : FormatTyped(type, result).c_str());
}

const char *Dictionary_GetBytes(const Dictionary *dict, const char *name, size_t *length)
{
   const Entry *e = Find(dict, name);
   if (e == nullptr) {
      return nullptr;
   }
   *length = e->text.size();
   return e->text.data();
}

const char *Dictionary_LookupString(const Dictionary *dict, const char *name)
{
   const Entry *e = Find(dict, name);
   return e != nullptr && IsStringType(e->type) ? e->text.c_str() : nullptr;
}

char *Dictionary_FormatValue(const Dictionary *dict, const char *name)
{
   const Entry *e = Find(dict, name);
   if (e == nullptr) {
      return nullptr;
   }
   return Util_SafeStrdup(FormatValue(*e).c_str());
}

void Dictionary_SetBytes(Dictionary *dict, const char *name, const char *value, size_t length)
{
   SetTyped(dict, name, DICT_STRING, Value(), std::string_view(value, length));
}

void Dictionary_SetString(Dictionary *dict, const char *name, const char *value)
{
   Dictionary_SetBytes(dict, name, value != nullptr ? value : "",
                       value != nullptr ? strlen(value) : 0);
}

void Dictionary_SetBool(Dictionary *dict, const char *name, bool value)
{
   Value v;
   v.b = value;
   SetTyped(dict, name, DICT_BOOL, v, FormatTyped(DICT_BOOL, v).View());
}

void Dictionary_SetLong(Dictionary *dict, const char *name, int32_t value)
{
   Value v;
   v.l = value;
   SetTyped(dict, name, DICT_LONG, v, FormatTyped(DICT_LONG, v).View());
}

void Dictionary_SetDouble(Dictionary *dict, const char *name, double value)
{
   Value v;
   v.d = value;
   SetTyped(dict, name, DICT_DOUBLE, v, FormatTyped(DICT_DOUBLE, v).View());
}

void Dictionary_SetTriState(Dictionary *dict, const char *name, int32_t value)
{
   Value v;
   v.l = value < 0 ? -1 : value != 0;
   SetTyped(dict, name, DICT_TRISTATE, v, FormatTyped(DICT_TRISTATE, v).View());
}

void Dictionary_SetInt64(Dictionary *dict, const char *name, int64_t value)
{
   Value v;
   v.i = value;
   SetTyped(dict, name, DICT_INT64, v, FormatTyped(DICT_INT64, v).View());
}

bool Dictionary_SetFromString(Dictionary *dict, const char *text, bool overwrite,
                              MsgList **msgs)
{
   const char *equals = strchr(text, '=');
   SecureString name(equals != nullptr ? std::string_view(text, (size_t)(equals - text))
                                       : std::string_view(text));
   const char *value = equals != nullptr ? equals + 1 : "";
   if (!overwrite && Find(dict, name.View()) != nullptr) {
      MsgList_Append(msgs,
                     "@&!*@*@(msg.dictionary.alreadyDefined.string)Variable \"%s\" is already "
                     "defined.\n",
                     name.c_str());
      return false;
   }
   Dictionary_SetString(dict, name.c_str(), value);
   return true;
}

bool Dictionary_Unset(Dictionary *dict, const char *name)
{
   Entry *e = Find(dict, name);
   if (e == nullptr) {
      return false;
   }
   void *head = nullptr;
   HashTable_Lookup(dict->index, IndexKey(e->hash), &head);
   if (head == e) {
      if (e->sameHash != nullptr) {
         HashTable_ReplaceOrInsert(dict->index, IndexKey(e->hash), e->sameHash);
      } else {
         HashTable_Delete(dict->index, IndexKey(e->hash));
      }
   } else {
      Entry *prev = static_cast<Entry *>(head);
      while (prev->sameHash != e) {
         prev = prev->sameHash;
      }
      prev->sameHash = e->sameHash;
   }
   std::erase_if(dict->lines, [e](const Line &line) { return line.entry == e; });
   std::erase(dict->entries, e);
   explicit_bzero(const_cast<char *>(e->name), e->nameLength);
   e->ownedName.Wipe();
   e->text.Wipe();
   return true;
}

void Dictionary_Dump(const Dictionary *dict, DictionaryDumpFn emit, void *context)
{
   auto put = [&](const char *fmt, auto... args) {
      char *text = Str_SafeAsprintf(nullptr, fmt, args...);
      emit(context, text);
      Util_ZeroFreeString(text);
   };
   for (const Entry *p : dict->entries) {
      const Entry &e = *p;
      const char *name = e.name;
      if (e.isDefault) {
         continue;
      }
      if (IsSecretName(name) || (e.encrypted && dict->encryptionState != nullptr)) {
         put("DICT %25s = <not printed>\n", name);
         continue;
      }
      switch (e.type) {
      case DICT_ANY:
      case DICT_STRING:
         put("DICT %25s = \"%s\"\n", name, e.text.c_str());
         break;
      case DICT_BOOL:
         put("DICT %25s = \"%s\"\n", name, e.boolValue ? "TRUE" : "FALSE");
         break;
      case DICT_LONG:
      case DICT_TRISTATE:
         put("DICT %25s = \"%i\"\n", name, e.longValue);
         break;
      case DICT_DOUBLE:
         put("DICT %25s = \"%g\"\n", name, e.doubleValue);
         break;
      case DICT_INT64:
         put("DICT %25s = \"%lld\"\n", name, (long long)e.int64Value);
         break;
      default:
         put("DICT %25s = <unknown parameter type>\n", name);
         break;
      }
   }
}

void Dictionary_Log(const Dictionary *dict)
{
   Dictionary_Dump(
       dict, [](void *, const char *line) { Log("%s", line); }, nullptr);
}

}  // extern "C"
