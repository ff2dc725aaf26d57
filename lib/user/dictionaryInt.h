/*
 * The dictionary's internal structure, shared by its reading/writing half (dictionary) and its
 * entry half (dictionary_core).
 */
#ifndef TESMAR_DICTIONARY_INT_H
#define TESMAR_DICTIONARY_INT_H

#include <stdint.h>

#include <memory>
#include <string_view>
#include <vector>

#include "dict/dictInt.h"
#include "dictionary.h"
#include "hashTable.h"

namespace tesmar::dict {

struct Entry {
   SecureString name;
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
};

struct Line {
   SecureString text;  // without its line feed
   Entry *entry = nullptr;
   bool encodingLine = false;  // the encoding metavariable, rewritten at the top on write
};

}  // namespace tesmar::dict

struct Dictionary {
   std::vector<std::unique_ptr<tesmar::dict::Entry>> entries;
   std::vector<tesmar::dict::Line> lines;
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

Entry *Find(const Dictionary *dict, std::string_view name);
/* Adds a new entry at the end; the name must not be defined. */
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
