/*
 * The configuration line codec: the line grammar, escaping, and round trips of every byte.
 */
#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>

#include "dictll.h"
#include "testSupport.h"

namespace {

using testsupport::Take;

struct Unmarshaled {
   std::string line;
   bool entry;
   std::string name;
   std::string value;
   size_t consumed;
};

Unmarshaled Unmarshal(const std::string &text)
{
   char *line;
   char *name;
   char *value;
   size_t lineLength;
   size_t valueLength;
   const char *next = DictLL_UnmarshalLineEx(text.data(), text.size(), &line, &lineLength, &name,
                                             &value, &valueLength);
   Unmarshaled u{std::string(line, lineLength), name != nullptr, name != nullptr ? name : "",
                 value != nullptr ? std::string(value, valueLength) : "",
                 (size_t)(next - text.data())};
   free(line);
   free(name);
   free(value);
   return u;
}

std::string Marshal(const char *name, const std::string &value)
{
   DynBuf buf;
   DynBuf_Init(&buf);
   EXPECT_TRUE(DictLL_MarshalLineEx(&buf, name, value.data(), value.size()));
   std::string out(static_cast<char *>(DynBuf_Get(&buf)), DynBuf_GetSize(&buf));
   DynBuf_Destroy(&buf);
   return out;
}

TEST(DictLL, LineGrammar)
{
   struct Case {
      const char *text;
      bool entry;
      const char *name;
      const char *value;
   } cases[] = {
       {"a=b", true, "a", "b"},
       {"a = \"x y\" # note", true, "a", "x y"},
       {"a = x y", false, "", ""},
       {"a =", true, "a", ""},
       {"  a\t=\t\"q\"\t", true, "a", "q"},
       {"a = b=c", true, "a", "b=c"},
       {"a = \"unterminated", false, "", ""},
       {"a = \"v\" trailing", false, "", ""},
       {"a = v#c", true, "a", "v"},
       {"# a = b", false, "", ""},
       {"=b", false, "", ""},
       {"name", false, "", ""},
       {"a = \"|41|7c|zz|\"", true, "a", "A||zz|"},
       {"a = \"|4\"", true, "a", "|4"},
   };
   for (const auto &c : cases) {
      Unmarshaled u = Unmarshal(std::string(c.text) + "\nnext");
      SCOPED_TRACE(c.text);
      EXPECT_EQ(u.line, c.text);
      EXPECT_EQ(u.consumed, strlen(c.text) + 1);
      EXPECT_EQ(u.entry, c.entry);
      EXPECT_EQ(u.name, c.name);
      EXPECT_EQ(u.value, c.value);
   }
}

TEST(DictLL, EndOfBufferAndNulBytes)
{
   char *line;
   char *name;
   char *value;
   EXPECT_EQ(DictLL_UnmarshalLine("", 0, &line, &name, &value), nullptr);
   EXPECT_EQ(line, nullptr);

   Unmarshaled last = Unmarshal("a = 1");
   EXPECT_TRUE(last.entry);
   EXPECT_EQ(last.consumed, 5u);

   // A NUL byte ends neither the line nor a quoted value; outside quotes it spoils the line.
   Unmarshaled quoted = Unmarshal(std::string("a = \"x\0y\"", 9));
   EXPECT_TRUE(quoted.entry);
   EXPECT_EQ(quoted.value, std::string("x\0y", 3));
   EXPECT_FALSE(Unmarshal(std::string("a = x\0y", 7)).entry);
   EXPECT_FALSE(Unmarshal(std::string("a\0 = x", 7)).entry);
}

TEST(DictLL, MarshalEscapesExactlyTheControlBytesQuoteAndBar)
{
   EXPECT_EQ(Marshal("a", "x\n\"|\t\x7f\xc3\xa9"), "a = \"x|0A|22|7C\t|7F\xc3\xa9\"\n");
   EXPECT_EQ(Marshal(nullptr, "# verbatim"), "# verbatim\n");

   std::string all;
   for (int c = 0; c < 256; c++) {
      all.push_back((char)c);
   }
   std::string line = Marshal("n", all);
   Unmarshaled u = Unmarshal(line);
   ASSERT_TRUE(u.entry);
   EXPECT_EQ(u.value, all);
   EXPECT_EQ(u.consumed, line.size());
}

TEST(DictLL, StreamLinesAndByteOrderMark)
{
   FILE *f = tmpfile();
   ASSERT_NE(f, nullptr);
   fputs(
       "\xEF\xBB\xBF"
       "a = \"1\"\n# c\n",
       f);
   rewind(f);
   EXPECT_TRUE(DictLL_ReadUTF8BOM(f));
   // Each line read as "line|name|value", "(null)" for an absent part.
   auto next = [f](int expected) {
      char *line = nullptr;
      char *name = nullptr;
      char *value = nullptr;
      EXPECT_EQ(DictLL_ReadLine(f, &line, &name, &value), expected);
      return Take(line) + "|" + Take(name) + "|" + Take(value);
   };
   EXPECT_EQ(next(DICTLL_LINE), "a = \"1\"|a|1");
   EXPECT_EQ(next(DICTLL_LINE), "# c|(null)|(null)");
   EXPECT_EQ(next(DICTLL_EOF), "(null)|(null)|(null)");

   rewind(f);
   ASSERT_TRUE(DictLL_WriteLine(f, "b", "|"));
   rewind(f);
   EXPECT_FALSE(DictLL_ReadUTF8BOM(f));
   char text[32] = {};
   ASSERT_NE(fgets(text, sizeof text, f), nullptr);
   EXPECT_STREQ(text, "b = \"|7C\"\n");
   fclose(f);
}

}  // namespace
