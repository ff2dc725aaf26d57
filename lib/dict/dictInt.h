/*
 * Internal interfaces of the configuration modules: a string whose buffers are wiped before
 * they are freed, the line codec on views, and the one place where configuration files are read
 * and written (to be replaced by the file library's atomic update).
 */
#ifndef TESMAR_DICT_INT_H
#define TESMAR_DICT_INT_H

#include <string.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace tesmar::dict {

/* Wipes every block before giving it back, so that reallocation leaves no copies behind. */
template <class T>
struct ZeroingAllocator {
   using value_type = T;
   ZeroingAllocator() noexcept = default;
   template <class U>
   ZeroingAllocator(const ZeroingAllocator<U> &) noexcept
   {
   }
   T *allocate(size_t n) { return std::allocator<T>().allocate(n); }
   void deallocate(T *p, size_t n) noexcept
   {
      explicit_bzero(p, n * sizeof(T));
      std::allocator<T>().deallocate(p, n);
   }
   template <class U>
   bool operator==(const ZeroingAllocator<U> &) const noexcept
   {
      return true;
   }
};

using SecureStringBase = std::basic_string<char, std::char_traits<char>, ZeroingAllocator<char>>;

/* A string that wipes its inline buffer too when it dies. */
class SecureString : public SecureStringBase {
  public:
   using SecureStringBase::SecureStringBase;
   SecureString() = default;
   SecureString(const SecureString &) = default;
   SecureString(SecureString &&other) noexcept : SecureStringBase(std::move(other))
   {
      other.Wipe();
   }
   SecureString &operator=(const SecureString &) = default;
   SecureString &operator=(SecureString &&other) noexcept
   {
      Wipe();
      SecureStringBase::operator=(std::move(other));
      other.Wipe();
      return *this;
   }
   explicit SecureString(std::string_view view) : SecureStringBase(view.data(), view.size()) {}
   ~SecureString() { Wipe(); }
   /* Overwrites the contents (and the spare capacity) with zero bytes and empties the string. */
   void Wipe() noexcept
   {
      explicit_bzero(data(), capacity());
      clear();
   }
   std::string_view View() const noexcept { return std::string_view(data(), size()); }
};

/* One line of a configuration text, as the codec reads it. */
struct ParsedLine {
   std::string_view line;  // without the line feed
   bool isEntry = false;
   std::string_view name;
   SecureString value;  // unescaped
};

/*
 * Reads the line at the start of text; returns the offset of the next line, or 0 when text is
 * empty.
 */
size_t UnmarshalLine(std::string_view text, ParsedLine *out);

/* Appends `name = "escaped value"` and a line feed. */
void MarshalEntry(SecureString *out, std::string_view name, std::string_view value);

/* Why a read failed. */
enum class ReadStage { kOk, kOpen, kStat, kIsDirectory, kRead };

/*
 * Reads a whole file ("-" is standard input) into *out. Returns 0, or an error number with
 * *stage telling which step failed.
 */
int ReadWholeFile(const char *path, SecureString *out, ReadStage *stage);

/*
 * Replaces path with data: a sibling temporary file is written, flushed to disk and renamed
 * over path, keeping the old file's mode when there was one. Returns 0 or an error number.
 */
int WriteFileAtomic(const char *path, std::string_view data);

}  // namespace tesmar::dict

#endif
