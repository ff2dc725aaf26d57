/*
 * DictLL: reading and writing single configuration lines.
 */
#include "dictll.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "dict/dictInt.h"
#include "log.h"
#include "strutil.h"
#include "util.h"

namespace tesmar::dict {

namespace {

bool IsBlank(char c)
{
   return c == ' ' || c == '\t';
}

bool NeedsEscape(unsigned char c)
{
   return (c <= 0x1F && c != '\t') || c == '"' || c == '|' || c == 0x7F;
}

/* Decodes "|XX" escapes into out; any other "|" stays as it is. */
void Unescape(std::string_view in, SecureString *out)
{
   out->clear();
   out->reserve(in.size());
   for (size_t i = 0; i < in.size(); i++) {
      if (in[i] == '|' && i + 2 < in.size()) {
         int hi = StrUtil_HexDigitValue((unsigned char)in[i + 1]);
         int lo = StrUtil_HexDigitValue((unsigned char)in[i + 2]);
         if (hi >= 0 && lo >= 0) {
            out->push_back((char)(hi * 16 + lo));
            i += 2;
            continue;
         }
      }
      out->push_back(in[i]);
   }
}

}  // namespace

size_t UnmarshalLine(std::string_view text, ParsedLine *out)
{
   out->isEntry = false;
   out->name = {};
   out->value.Wipe();
   if (text.empty()) {
      out->line = {};
      return 0;
   }
   size_t nl = text.find('\n');
   size_t end = nl != std::string_view::npos ? nl : text.size();
   size_t next = nl != std::string_view::npos ? nl + 1 : text.size();
   std::string_view line = text.substr(0, end);
   out->line = line;

   size_t p = 0;
   auto skipBlanks = [&] {
      while (p < end && IsBlank(line[p])) {
         p++;
      }
   };
   skipBlanks();
   size_t nameStart = p;
   while (p < end && line[p] != '\0' && !IsBlank(line[p]) && line[p] != '#' && line[p] != '=') {
      p++;
   }
   size_t nameEnd = p;
   skipBlanks();
   if (nameEnd == nameStart || p == end || line[p] != '=') {
      return next;
   }
   p++;
   skipBlanks();
   size_t valueStart;
   size_t valueEnd;
   if (p < end && line[p] == '"') {
      valueStart = ++p;
      size_t quote = line.find('"', p);
      if (quote == std::string_view::npos) {
         return next;
      }
      valueEnd = quote;
      p = quote + 1;
   } else {
      valueStart = p;
      while (p < end && line[p] != '\0' && !IsBlank(line[p]) && line[p] != '#') {
         p++;
      }
      valueEnd = p;
   }
   skipBlanks();
   if (p != end && line[p] != '#') {
      return next;
   }
   Unescape(line.substr(valueStart, valueEnd - valueStart), &out->value);
   out->name = line.substr(nameStart, nameEnd - nameStart);
   out->isEntry = true;
   return next;
}

void MarshalEntry(SecureString *out, std::string_view name, std::string_view value)
{
   static const char kHex[] = "0123456789ABCDEF";
   size_t escapes = 0;
   for (char c : value) {
      escapes += NeedsEscape((unsigned char)c) ? 1 : 0;
   }
   out->reserve(out->size() + name.size() + 6 + value.size() + 2 * escapes);
   out->append(name);
   out->append(" = \"");
   for (char c : value) {
      unsigned char u = (unsigned char)c;
      if (NeedsEscape(u)) {
         char esc[3] = {'|', kHex[u >> 4], kHex[u & 0xF]};
         out->append(esc, 3);
      } else {
         out->push_back(c);
      }
   }
   out->append("\"\n");
}

}  // namespace tesmar::dict

using tesmar::dict::ParsedLine;
using tesmar::dict::SecureString;

namespace {

char *CopyBytes(std::string_view bytes)
{
   char *copy = static_cast<char *>(Util_SafeMalloc(bytes.size() + 1));
   if (!bytes.empty()) {
      memcpy(copy, bytes.data(), bytes.size());
   }
   copy[bytes.size()] = '\0';
   return copy;
}

}  // namespace

extern "C" {

const char *DictLL_UnmarshalLineEx(const char *buf, size_t bufSize, char **line,
                                   size_t *lineLength, char **name, char **value,
                                   size_t *valueLength)
{
   *line = nullptr;
   *name = nullptr;
   *value = nullptr;
   ParsedLine parsed;
   size_t next = tesmar::dict::UnmarshalLine(std::string_view(buf, bufSize), &parsed);
   if (next == 0) {
      return nullptr;
   }
   *line = CopyBytes(parsed.line);
   if (lineLength != nullptr) {
      *lineLength = parsed.line.size();
   }
   if (parsed.isEntry) {
      *name = CopyBytes(parsed.name);
      *value = CopyBytes(parsed.value.View());
   }
   if (valueLength != nullptr) {
      *valueLength = parsed.isEntry ? parsed.value.size() : 0;
   }
   return buf + next;
}

const char *DictLL_UnmarshalLine(const char *buf, size_t bufSize, char **line, char **name,
                                 char **value)
{
   return DictLL_UnmarshalLineEx(buf, bufSize, line, nullptr, name, value, nullptr);
}

bool DictLL_MarshalLineEx(DynBuf *output, const char *name, const char *value,
                          size_t valueLength)
{
   if (name == nullptr) {
      return DynBuf_Append(output, value, valueLength) && DynBuf_Append(output, "\n", 1);
   }
   SecureString line;
   tesmar::dict::MarshalEntry(&line, name, std::string_view(value, valueLength));
   return DynBuf_Append(output, line.data(), line.size());
}

bool DictLL_MarshalLine(DynBuf *output, const char *name, const char *value)
{
   return DictLL_MarshalLineEx(output, name, value != nullptr ? value : "",
                               value != nullptr ? strlen(value) : 0);
}

int DictLL_ReadLine(FILE *stream, char **line, char **name, char **value)
{
   *line = nullptr;
   *name = nullptr;
   *value = nullptr;
   char *buf = nullptr;
   size_t size = 0;
   errno = 0;
   ssize_t length = getline(&buf, &size, stream);
   if (length < 0) {
      int error = errno;
      bool failed = ferror(stream) != 0;
      Util_ZeroFree(buf, size);
      if (failed) {
         errno = error != 0 ? error : EIO;
         return DICTLL_ERROR;
      }
      return DICTLL_EOF;
   }
   DictLL_UnmarshalLine(buf, (size_t)length, line, name, value);
   Util_ZeroFree(buf, size);
   return DICTLL_LINE;
}

bool DictLL_WriteLine(FILE *stream, const char *name, const char *value)
{
   SecureString line;
   if (name == nullptr) {
      line.append(value != nullptr ? value : "");
      line.push_back('\n');
   } else {
      tesmar::dict::MarshalEntry(&line, name, value != nullptr ? value : "");
   }
   if (fwrite(line.data(), 1, line.size(), stream) != line.size()) {
      int error = errno;
      line.Wipe();
      errno = error;
      return false;
   }
   return true;
}

bool DictLL_ReadUTF8BOM(FILE *file)
{
   if (file == stdin) {
      return false;
   }
   int c0 = getc(file);
   if (c0 != 0xEF) {
      if (c0 != EOF) {
         ungetc(c0, file);
      }
      return false;
   }
   int c1 = getc(file);
   int c2 = c1 == 0xBB ? getc(file) : EOF;
   if (c1 == 0xBB && c2 == 0xBF) {
      return true;
   }
   // Not a mark: put back what was read (a seek when the stream allows, as ungetc holds one).
   long back = c1 == EOF ? 1 : (c2 == EOF ? 2 : 3);
   if (fseek(file, -back, SEEK_CUR) != 0) {
      ungetc(c0, file);
   }
   return false;
}

}  // extern "C"
