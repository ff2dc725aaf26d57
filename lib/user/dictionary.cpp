/*
 * Dictionary files: reading (lines, metavariables, duplicates, encodings), writing back with
 * comments and order kept, saving a copy and making a file executable.
 */
#include "dictionary.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "internal/retry.h"
#include "internal/uniqueFd.h"
#include "log.h"
#include "str.h"
#include "unicodeBase.h"
#include "user/dictionaryInt.h"
#include "util.h"

using namespace tesmar::dict;

namespace {

constexpr int kMaxDuplicates = 100;
constexpr char kStdinName[] = "<stdin>";
constexpr char kUtf8Bom[] = "\xEF\xBB\xBF";

std::atomic<int> gCopyCounter{0};

const char *const kEncodingNames[] = {"config.encoding", "preferences.encoding", "vmlist.encoding",
                                      "snapshot.encoding", ".encoding"};

bool IsEncodingName(std::string_view name)
{
   for (const char *candidate : kEncodingNames) {
      if (name.size() == strlen(candidate) &&
          strncasecmp(name.data(), candidate, name.size()) == 0) {
         return true;
      }
   }
   return false;
}

bool IsAscii(std::string_view name)
{
   for (char c : name) {
      if ((unsigned char)c >= 0x80) {
         return false;
      }
   }
   return true;
}

std::string_view TrimBlanks(std::string_view line)
{
   size_t i = 0;
   while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) {
      i++;
   }
   return line.substr(i);
}

const char *EncodingName(StringEncoding encoding)
{
   if (encoding < 0 || !Unicode_IsEncodingValid(encoding)) {
      return "";
   }
   const char *name = Unicode_EncodingEnumToName(encoding);
   return name != nullptr ? name : "";
}

/* Whether bytes are valid in encoding, converting them to UTF-8 into out when they are. */
bool DecodeValue(std::string_view bytes, StringEncoding encoding, SecureString *out)
{
   if (!Unicode_IsBufferValid(bytes.data(), (ssize_t)bytes.size(), encoding)) {
      return false;
   }
   if (encoding == STRING_ENCODING_UTF8) {
      out->assign(bytes.data(), bytes.size());
      return true;
   }
   char *utf8 = Unicode_AllocWithLength(bytes.data(), (ssize_t)bytes.size(), encoding);
   if (utf8 == nullptr) {
      return false;
   }
   out->assign(utf8);
   Util_ZeroFreeString(utf8);
   return true;
}

/* The value's bytes in the file's encoding; false when it cannot be represented. */
bool EncodeValue(const SecureString &utf8, StringEncoding encoding, SecureString *out)
{
   if (encoding == STRING_ENCODING_UTF8) {
      *out = utf8;
      return true;
   }
   if (!Unicode_CanGetBytesWithEncoding(utf8.c_str(), encoding)) {
      return false;
   }
   size_t length = 0;
   void *bytes = Unicode_GetAllocBytesWithLength(utf8.c_str(), encoding, (ssize_t)utf8.size(),
                                                 &length);
   if (bytes == nullptr) {
      return false;
   }
   out->assign(static_cast<const char *>(bytes), length);
   Util_ZeroFree(bytes, length);
   return true;
}

/*
 * Gives the dictionary an encoding: every string entry must be valid in it and is converted to
 * UTF-8. line is where the encoding was declared (0 at the end of the file).
 */
bool SetEncoding(Dictionary *dict, const char *name, int line, MsgList **msgs)
{
   StringEncoding encoding = Unicode_EncodingNameToEnum(name);
   if (encoding != STRING_ENCODING_UNKNOWN) {
      encoding = Unicode_ResolveEncoding(encoding);
   }
   if (encoding == STRING_ENCODING_UNKNOWN || !Unicode_IsEncodingValid(encoding)) {
      AppendWithPlace(msgs, dict, line,
                      "@&!*@*@(msg.dictionary.unknownEncoding)File \"%s\" (line %d) specifies a "
                      "character encoding (%s) that is not supported.\n",
                      "@&!*@*@(msg.dictionary.unknownEncodingNoLine)File \"%s\": Character "
                      "encoding \"%s\" is not supported.\n",
                      "@&!*@*@(msg.dictionary.unknownEncodingNoFile)Character encoding \"%s\" is "
                      "not supported.\n",
                      name);
      return false;
   }
   if (dict->encoding != kEncodingUnknown) {
      if (dict->encoding == encoding) {
         return true;
      }
      AppendWithPlace(msgs, dict, line,
                      "@&!*@*@(msg.dictionary.hasEncoding)File \"%s\" (line %d) already has "
                      "encoding \"%s\".\n",
                      "@&!*@*@(msg.dictionary.hasEncodingNoLine)File \"%s\" already has encoding "
                      "\"%s\".\n",
                      "@&!*@*@(msg.dictionary.hasEncodingNoFile)The dictionary already has "
                      "encoding \"%s\".\n",
                      EncodingName(dict->encoding));
      return false;
   }
   // UTF-8 needs no conversion, only the check.
   bool convert = encoding != STRING_ENCODING_UTF8;
   std::vector<SecureString> decoded(convert ? dict->entries.size() : 0);
   for (size_t i = 0; i < dict->entries.size(); i++) {
      const Entry &e = *dict->entries[i];
      bool valid = !IsStringType(e.type) ||
                   (convert ? DecodeValue(e.text.View(), encoding, &decoded[i])
                            : Unicode_IsBufferValid(e.text.data(), (ssize_t)e.text.size(),
                                                    encoding));
      if (!valid) {
         AppendWithPlace(msgs, dict, e.lineNumber,
                         "@&!*@*@(msg.dictionary.badEncodedInput)File \"%s\" line %d: Value "
                         "\"%s\" for variable \"%s\" is not valid in encoding \"%s\".\n",
                         "@&!*@*@(msg.dictionary.badEncodedInputNoLine)File \"%s\": Value \"%s\" "
                         "for variable \"%s\" is not valid in encoding \"%s\".\n",
                         "@&!*@*@(msg.dictionary.badEncodedInputNoFile)Value \"%s\" for variable "
                         "\"%s\" is not valid in encoding \"%s\".\n",
                         e.text.c_str(), e.name, EncodingName(encoding));
         return false;
      }
   }
   for (size_t i = 0; convert && i < dict->entries.size(); i++) {
      Entry &e = *dict->entries[i];
      if (IsStringType(e.type)) {
         e.text = std::move(decoded[i]);
      }
   }
   dict->encoding = encoding;
   return true;
}

/* One line of a file; false ends the read. */
bool ParseReadLine(Dictionary *dict, const ParsedLine &parsed, int *duplicates, MsgList **msgs)
{
   Line line;
   line.view = parsed.line;
   if (parsed.isEntry) {
      std::string_view name = parsed.name;
      if (IsEncodingName(name)) {
         line.encodingLine = true;
         if (!SetEncoding(dict, parsed.value.c_str(), dict->lineNumber, msgs)) {
            return false;
         }
      } else if (name[0] == '.') {
         Log("%s: \"%s\" line %d: unrecognized metavariable \"%.*s\"\n",
             "DictionaryParseReadLine", FileLabel(dict) != nullptr ? FileLabel(dict) : "",
             dict->lineNumber, (int)name.size(), name.data());
      } else if (uint64_t hash = NameHash(name); Find(dict, name, hash) != nullptr) {
         SecureString copy(name);
         AppendWithPlace(msgs, dict, dict->lineNumber,
                         "@&!*@*@(msg.dictionary.alreadyDefined)File \"%s\" line %d: Variable "
                         "\"%s\" is already defined.\n",
                         "@&!*@*@(msg.dictionary.alreadyDefinedNoLine)File \"%s\": Variable \"%s\" "
                         "is already defined.\n",
                         "@&!*@*@(msg.dictionary.alreadyDefinedNoFile)Variable \"%s\" is already "
                         "defined.\n",
                         copy.c_str());
         if (++*duplicates > kMaxDuplicates) {
            Log("%s: \"%s\" line %d: too many duplicate entries in dictionary, quitting.\n",
                "DictionaryReadLines", FileLabel(dict) != nullptr ? FileLabel(dict) : "",
                dict->lineNumber);
            dict->lines.push_back(std::move(line));
            return false;
         }
      } else if (!IsAscii(name)) {
         SecureString copy(name);
         MsgList_Append(msgs,
                        "@&!*@*@(msg.dictionary.nameNotASCII)File \"%s\" line %d: Variable \"%s\" "
                        "is not valid ASCII.\n",
                        FileLabel(dict) != nullptr ? FileLabel(dict) : "", dict->lineNumber,
                        copy.c_str());
         return false;
      } else {
         Entry *e = Add(dict, name, hash);
         e->lineNumber = dict->lineNumber;
         if (dict->encoding == kEncodingUnknown) {
            e->text = parsed.value;
         } else if (!DecodeValue(parsed.value.View(), dict->encoding, &e->text)) {
            AppendWithPlace(msgs, dict, dict->lineNumber,
                            "@&!*@*@(msg.dictionary.badEncodedInput)File \"%s\" line %d: Value "
                            "\"%s\" for variable \"%s\" is not valid in encoding \"%s\".\n",
                            "@&!*@*@(msg.dictionary.badEncodedInputNoLine)File \"%s\": Value "
                            "\"%s\" for variable \"%s\" is not valid in encoding \"%s\".\n",
                            "@&!*@*@(msg.dictionary.badEncodedInputNoFile)Value \"%s\" for "
                            "variable \"%s\" is not valid in encoding \"%s\".\n",
                            parsed.value.c_str(), e->name, EncodingName(dict->encoding));
            dict->lines.push_back(std::move(line));
            return false;
         }
         line.entry = e;
      }
      dict->lines.push_back(std::move(line));
      return true;
   }
   std::string_view rest = TrimBlanks(parsed.line);
   if (rest.empty() || rest[0] == '#') {
      dict->lines.push_back(std::move(line));
      return true;
   }
   Log("%s: syntax error with line, \"%.*s\".\n", "DictionaryParseReadLine",
       (int)parsed.line.size(), parsed.line.data());
   AppendWithPlace(msgs, dict, dict->lineNumber,
                   "@&!*@*@(msg.dictionary.read.syntaxError)File \"%s\" line %d: Syntax error.\n",
                   "@&!*@*@(msg.dictionary.read.syntaxErrorNoLine)File \"%s\": Syntax error.\n",
                   "@&!*@*@(msg.dictionary.read.syntaxErrorNoFile)Syntax error.\n");
   return false;
}

/* Decodes the entries of a file that declared no encoding. */
bool DecodeWithDefault(Dictionary *dict, bool hadBom, StringEncoding defaultEncoding,
                       MsgList **msgs)
{
   StringEncoding encoding = Unicode_ResolveEncoding(defaultEncoding);
   if (hadBom && encoding != STRING_ENCODING_UTF8) {
      MsgList *discarded = nullptr;
      bool ok = SetEncoding(dict, "UTF-8", 0, &discarded);
      MsgList_Free(discarded);
      if (ok) {
         return true;
      }
   }
   if (SetEncoding(dict, EncodingName(encoding), 0, msgs)) {
      return true;
   }
   MsgList_Append(msgs,
                  "@&!*@*@(msg.dictionary.badDefaultEncoding)An error occurred while decoding "
                  "file \"%s\" using the default character encoding.\n",
                  FileLabel(dict) != nullptr ? FileLabel(dict) : "");
   return false;
}

/* Reads every line of text (the whole file) into the dictionary. */
bool ReadLines(Dictionary *dict, SecureString &&source, bool skipBom,
               StringEncoding defaultEncoding, MsgList **msgs)
{
   // The lines view the text, which the dictionary keeps for as long as it has them.
   dict->sources.push_back(std::make_unique<SecureString>(std::move(source)));
   std::string_view text = dict->sources.back()->View();
   // Room for every name with its NUL, so the arena never moves while names point into it.
   auto arena = std::make_unique<SecureString>();
   arena->reserve(text.size() + 1);
   dict->nameArena = arena.get();
   dict->sources.push_back(std::move(arena));
   struct ArenaDone {
      Dictionary *dict;
      ~ArenaDone() { dict->nameArena = nullptr; }
   } arenaDone{dict};
   bool hadBom = false;
   if (skipBom && text.substr(0, 3) == kUtf8Bom) {
      text.remove_prefix(3);
      hadBom = true;
   }
   dict->lineNumber = 0;
   size_t newlines = 0;
   for (char c : text) {
      newlines += c == '\n' ? 1 : 0;
   }
   Reserve(dict, newlines + 1);
   dict->lines.reserve(dict->lines.size() + newlines + 1);

   int duplicates = 0;
   ParsedLine parsed;
   size_t next;
   while ((next = UnmarshalLine(text, &parsed)) != 0) {
      dict->lineNumber++;
      if (!ParseReadLine(dict, parsed, &duplicates, msgs)) {
         return false;
      }
      text.remove_prefix(next);
   }
   if (duplicates > 0) {
      return false;
   }
   if (dict->encoding == kEncodingUnknown) {
      return DecodeWithDefault(dict, hadBom, defaultEncoding, msgs);
   }
   return true;
}

void SetFileName(Dictionary *dict, const char *name)
{
   dict->fileName.Wipe();
   dict->hasFileName = name != nullptr;
   if (name != nullptr) {
      dict->fileName.assign(name);
   }
}

/* One pass of the writer; false when a value cannot be represented in the encoding. */
bool WritePass(Dictionary *dict, SecureString *out, MsgList **msgs)
{
   for (auto &e : dict->entries) {
      e->written = false;
   }
   StringEncoding encoding = dict->encoding;
   auto writeEntry = [&](Entry &e) {
      e.written = true;
      SecureString value = FormatValue(e);
      SecureString bytes;
      if (IsStringType(e.type) && !EncodeValue(value, encoding, &bytes)) {
         MsgList_Append(msgs,
                        "@&!*@*@(msg.dictionary.badEncodedOutput)Value \"%s\" for variable \"%s\" "
                        "is not valid in the \"%s\" encoding.\n",
                        value.c_str(), e.name, EncodingName(encoding));
         return false;
      }
      MarshalEntry(out, e.NameView(), IsStringType(e.type) ? bytes.View() : value.View());
      return true;
   };

   size_t i = 0;
   for (; i < dict->lines.size(); i++) {
      const Line &line = dict->lines[i];
      if (line.entry != nullptr || line.encodingLine || line.Text().empty() ||
          line.Text()[0] != '#') {
         break;
      }
      out->append(line.Text());
      out->push_back('\n');
   }
   MarshalEntry(out, ".encoding", EncodingName(encoding));
   for (; i < dict->lines.size(); i++) {
      const Line &line = dict->lines[i];
      if (line.encodingLine) {
         continue;
      }
      Entry *e = line.entry;
      if (e == nullptr) {
         out->append(line.Text());
         out->push_back('\n');
      } else if (!e->written && !e->encrypted) {
         if (e->modified) {
            if (!writeEntry(*e)) {
               return false;
            }
         } else {
            e->written = true;
            out->append(line.Text());
            out->push_back('\n');
         }
      }
   }
   for (auto &e : dict->entries) {
      if (!e->written && !e->encrypted && !writeEntry(*e)) {
         return false;
      }
   }
   return true;
}

}  // namespace

extern "C" {

bool Dictionary_LoadFromBuffer(Dictionary *dict, const char *name, const char *text,
                               size_t length, StringEncoding defaultEncoding, MsgList **msgs)
{
   SetFileName(dict, name);
   return ReadLines(dict, SecureString(std::string_view(text, length)), true, defaultEncoding,
                    msgs);
}

bool DictionaryLoad(Dictionary *dict, const char *path, bool clear,
                    StringEncoding defaultEncoding, MsgList **msgs)
{
   if (clear) {
      Dictionary_Clear(dict);
   }
   bool isStdin = strcmp(path, "-") == 0;
   SetFileName(dict, isStdin ? kStdinName : path);
   SecureString text;
   ReadStage stage;
   int error = ReadWholeFile(path, &text, &stage);
   if (error != 0) {
      char buf[256];
      const char *reason = strerror_r(error, buf, sizeof buf);
      const char *file = FileLabel(dict);
      switch (stage) {
      case ReadStage::kOpen:
         Log("%s: Cannot open file \"%s\": %s.\n", "DictionaryLoad", file, reason);
         MsgList_Append(msgs,
                        "@&!*@*@(msg.dictionary.load.openFailed)Cannot open file \"%s\": %s.\n",
                        file, reason);
         break;
      case ReadStage::kStat:
         Log("%s: Unable to get information about file \"%s\": %s.\n", "DictionaryLoad", file,
             reason);
         MsgList_Append(msgs,
                        "@&!*@*@(msg.dictionary.load.statFailed)Unable to get information about "
                        "file \"%s\": %s.\n",
                        file, reason);
         break;
      case ReadStage::kIsDirectory:
         Log("%s: \"%s\" is a directory.\n", "DictionaryLoad", file);
         MsgList_Append(msgs, "@&!*@*@(msg.dictionary.load.isDirectory)\"%s\" is a directory.\n",
                        file);
         break;
      default:
         MsgList_Append(msgs, "@&!*@*@(msg.dictionary.read.readError)File \"%s\" line %d: %s.\n",
                        file, 0, reason);
         break;
      }
      errno = error;
      return false;
   }
   return ReadLines(dict, std::move(text), !isStdin, defaultEncoding, msgs);
}

char *Dictionary_WriteToBuffer(Dictionary *dict, bool withEncryptedPart, size_t *length,
                               MsgList **msgs)
{
   if (dict->encoding == kEncodingUnknown) {
      dict->encoding = Unicode_GetCurrentEncoding();
   }
   SecureString out;
   while (!WritePass(dict, &out, msgs)) {
      if (dict->encoding == STRING_ENCODING_UTF8) {
         return nullptr;  // cannot happen: every string entry holds UTF-8
      }
      Log("%s: upgrading encoding from %s to %s\n", "Dictionary_WriteToBuffer",
          EncodingName(dict->encoding), EncodingName(STRING_ENCODING_UTF8));
      for (auto &e : dict->entries) {
         if (IsStringType(e->type)) {
            e->modified = true;
         }
      }
      dict->encoding = STRING_ENCODING_UTF8;
      dict->upgradedToUtf8 = true;
      out.Wipe();
   }
   char *text = static_cast<char *>(Util_SafeMalloc(out.size() + 1));
   memcpy(text, out.data(), out.size());
   text[out.size()] = '\0';
   if (length != nullptr) {
      *length = out.size();
   }
   return text;
}

bool Dictionary_WriteFile(Dictionary *dict, const char *path, MsgList **msgs)
{
   size_t length = 0;
   char *text = Dictionary_WriteToBuffer(dict, true, &length, msgs);
   if (text == nullptr) {
      return false;
   }
   int error = WriteFileAtomic(path, std::string_view(text, length));
   Util_ZeroFree(text, length);
   if (error != 0) {
      char buf[256];
      MsgList_Append(msgs,
                     "@&!*@*@(msg.dictionary.write.failed)Cannot write file \"%s\": %s.\n", path,
                     strerror_r(error, buf, sizeof buf));
      errno = error;
      return false;
   }
   for (auto &e : dict->entries) {
      e->modified = false;
   }
   return true;
}

void Dictionary_SetInterpreter(Dictionary *dict, const char *interpreter)
{
   if (!dict->lines.empty() && dict->lines[0].entry == nullptr &&
       dict->lines[0].Text().substr(0, 2) == "#!") {
      return;
   }
   Line line;
   line.isOwned = true;
   line.owned.assign("#!");
   line.owned.append(interpreter);
   dict->lines.insert(dict->lines.begin(), std::move(line));
}

bool Dictionary_MakeExecutable(const char *path)
{
   struct stat st;
   if (stat(path, &st) != 0) {
      Log("%s: cannot stat configuration file %s: %s\n", "Dictionary_MakeExecutable", path,
          strerror(errno));
      return false;
   }
   mode_t mode = st.st_mode & 07777;
   mode |= (mode & (S_IRUSR | S_IRGRP | S_IROTH)) >> 2;
   if (chmod(path, mode) != 0) {
      Log("%s: cannot change mode of file %s: %s\n", "Dictionary_MakeExecutable", path,
          strerror(errno));
      return false;
   }
   return true;
}

char *Dictionary_DeriveFileName(const char *base, const char *extension)
{
   char *name = Str_Asprintf(nullptr, "%s.%s", base, extension);
   if (name == nullptr) {
      Log("%s: couldn't get filename\n", "Dictionary_DeriveFileName");
   }
   return name;
}

void DictionarySaveFileCopy(int fd, const char *path)
{
   off_t position = lseek(fd, 0, SEEK_CUR);
   if (position < 0) {
      Log("%s: Unable to record the current position of file %s\n", "DictionarySaveFileCopy",
          path);
      return;
   }
   if (lseek(fd, 0, SEEK_SET) != 0) {
      Log("%s: Unable to get to the begining position of file %s\n", "DictionarySaveFileCopy",
          path);
      return;
   }
   char *copyPath = Str_SafeAsprintf(nullptr, "%s-%s-%d", path, "copy", gCopyCounter++);
   tesmar::UniqueFd out(tesmar::RetryEintr(
       [&] { return open(copyPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600); }));
   bool ok = out.valid();
   char buf[8192];
   while (ok) {
      ssize_t n = tesmar::RetryEintr([&] { return read(fd, buf, sizeof buf); });
      if (n <= 0) {
         ok = n == 0;
         break;
      }
      for (ssize_t done = 0; ok && done < n;) {
         ssize_t w = tesmar::RetryEintr([&] { return write(out.get(), buf + done, n - done); });
         ok = w > 0;
         done += w > 0 ? w : 0;
      }
   }
   explicit_bzero(buf, sizeof buf);
   if (!ok) {
      Log("%s: Unable to save a copy of %s\n", "DictionarySaveFileCopy", path);
   }
   free(copyPath);
   if (lseek(fd, position, SEEK_SET) != position) {
      Log("%s: Unable to restore to original position for file %s\n", "DictionarySaveFileCopy",
          path);
   }
}

}  // extern "C"
