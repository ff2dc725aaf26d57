/*
 * The dictionary's internal structure, shared by its reading/writing half (dictionary) and its
 * entry half (dictionary_core).
 */
#ifndef TESMAR_DICTIONARY_INT_H
#define TESMAR_DICTIONARY_INT_H

#include <stdint.h>
#include <string.h>
#include <strings.h>

#include <memory>
#include <string_view>
#include <vector>

#include "dict/dictInt.h"
#include "dictionary.h"
#include "hashTable.h"

namespace tesmar::dict {

struct Entry {
   /* The name, NUL-terminated: in the dictionary's name arena, or in ownedName. */
   const char *name = "";
   size_t nameLength = 0;
   SecureString ownedName;
   int type = DICT_ANY;
   /* The text of an untyped or string entry; for a typed entry, its text as read or set. */
   SecureString text;
   bool boolValue = false;
   int32_t longValue = 0;  // long and tristate
   double doubleValue = 0;
   int64_t int64Value = 0;
   bool modified = false;  // must be re-formatted on write
   bool written = false;   // set during one write pass
   bool isDefault = false; // never dumped
   bool encrypted = false; // belongs to the encrypted part of the file
   int lineNumber = 0;     // where it was read, 0 for an entry set at run time
   uint64_t hash = 0;      // the index key
   Entry *sameHash = nullptr;  // the next entry whose name has the same hash
   std::string_view NameView() const { return std::string_view(name, nameLength); }
};

/* A line as read (a view into the text it came from) or made at run time (owned). */
struct Line {
   std::string_view view;  // without its line feed
   SecureString owned;
   bool isOwned = false;
   Entry *entry = nullptr;
   bool encodingLine = false;  // the encoding metavariable, rewritten at the top on write
   std::string_view Text() const { return isOwned ? owned.View() : view; }
};

/* Entries live in chunks, so that reading a file does not allocate them one by one. */
constexpr size_t kEntryChunk = 256;

}  // namespace tesmar::dict

struct Dictionary {
   std::vector<tesmar::dict::Entry *> entries;  // in entry order
   std::vector<std::unique_ptr<tesmar::dict::Entry[]>> entryChunks;
   size_t chunkUsed = tesmar::dict::kEntryChunk;
   std::vector<tesmar::dict::Line> lines;
   std::vector<std::unique_ptr<tesmar::dict::SecureString>> sources;  // texts the lines view
   tesmar::dict::SecureString *nameArena = nullptr;  // where names read from a file go
   HashTable *index = nullptr;  // name (without regard to case) -> Entry
   uint32_t buckets = 0;
   tesmar::dict::SecureString fileName;
   bool hasFileName = false;
   int lineNumber = 0;
   StringEncoding encoding = -2;
   bool upgradedToUtf8 = false;
   void *encryptionState = nullptr;
   void (*clearHook)(Dictionary *dict) = nullptr;
};

namespace tesmar::dict {

constexpr StringEncoding kEncodingUnknown = -2;

/* A typed value, for defaults and results. */
struct Value {
   bool b = false;
   int32_t l = 0;
   double d = 0;
   int64_t i = 0;
};

/*
 * The typed get on an entry (nullptr when the name is not defined): false, with the default in
 * *result, when there is no entry or its value does not parse (then with a message).
 */
bool GetTypedEntry(Entry *e, int type, const Value &def, Value *result, MsgList **msgs);
/* An owned copy of a string entry's text, or of the default when there is no entry. */
char *GetStringEntry(Entry *e, const char *defaultValue);

uint64_t NameHash(std::string_view name);

/* Names are equal without regard to case; the same spelling is the common case. */
inline bool NameEquals(std::string_view a, std::string_view b)
{
   return a.size() == b.size() &&
          (memcmp(a.data(), b.data(), a.size()) == 0 ||
           strncasecmp(a.data(), b.data(), a.size()) == 0);
}
Entry *Find(const Dictionary *dict, std::string_view name, uint64_t hash);
Entry *Find(const Dictionary *dict, std::string_view name);
Entry *Find(const Dictionary *dict, const char *name);
/*
 * Adds a new entry at the end; the name must not be defined. While a file is read its names
 * go to the name arena (reserved to hold them all), otherwise into the entry itself.
 */
Entry *Add(Dictionary *dict, std::string_view name, uint64_t hash);
Entry *Add(Dictionary *dict, std::string_view name);
/* Makes the index large enough for count more entries. */
void Reserve(Dictionary *dict, size_t count);
void ClearAll(Dictionary *dict);
/* The value as written to a file (UTF-8). */
SecureString FormatValue(const Entry &entry);
bool IsStringType(int type);

/* MsgList_Append for formats chosen at run time. */
void AppendMsg(MsgList **msgs, const char *idFmt, ...);

/* The file name for messages, or nullptr. */
const char *FileLabel(const Dictionary *dict);

/*
 * Appends one of a message's three forms: with the file and the line, with the file only, or
 * with neither, whichever the dictionary can give. The forms take (file, line, args...),
 * (file, args...) and (args...).
 */
template <class... Args>
void AppendWithPlace(MsgList **msgs, const Dictionary *dict, int line, const char *withLine,
                     const char *noLine, const char *noFile, Args... args)
{
   const char *file = FileLabel(dict);
   if (file == nullptr) {
      AppendMsg(msgs, noFile, args...);
   } else if (line > 0) {
      AppendMsg(msgs, withLine, file, line, args...);
   } else {
      AppendMsg(msgs, noLine, file, args...);
   }
}

}  // namespace tesmar::dict

#endif
