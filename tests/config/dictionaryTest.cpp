/*
 * Dictionary files: reading, messages, typed values, encodings, writing back, the dump, the
 * small file helpers, and the line codec underneath (grammar, escaping, stream lines).
 */
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <string>

#include <unicode/utypes.h>

#include "codeset.h"
#include "dictionary.h"
#include "dictll.h"
#include "testSupport.h"

namespace {

using namespace testsupport;
using ::testing::HasSubstr;

/* The messages of a list, oldest first, joined. */
std::string Messages(MsgList *msgs)
{
   std::string all;
   for (MsgList *m = msgs; m != nullptr; m = m->next) {
      MsgList one = *m;
      one.next = nullptr;
      all.insert(0, std::string("[") + m->id + "] " + Take(MsgList_ToString(&one)));
   }
   MsgList_Free(msgs);
   return all;
}

/* A dictionary read from text, freed with this. */
struct Loaded {
   Dictionary *dict;
   bool ok;
   std::string messages;
   ~Loaded() { Dictionary_Free(dict); }
};

Loaded LoadText(const std::string &text, const char *name = "f",
                StringEncoding encoding = STRING_ENCODING_UTF8)
{
   Dictionary *dict = Dictionary_Create();
   MsgList *msgs = nullptr;
   bool ok = Dictionary_LoadFromBuffer(dict, name, text.data(), text.size(), encoding, &msgs);
   return {dict, ok, Messages(msgs)};
}

std::string WriteText(Dictionary *dict)
{
   size_t length = 0;
   MsgList *msgs = nullptr;
   char *text = Dictionary_WriteToBuffer(dict, true, &length, &msgs);
   EXPECT_NE(text, nullptr) << Messages(msgs);
   std::string out(text, length);
   free(text);
   MsgList_Free(msgs);
   return out;
}

std::string Get(Dictionary *dict, const char *name)
{
   return Take(Dictionary_GetString(dict, nullptr, name, nullptr));
}

TEST(Dictionary, WriteBackKeepsEveryUnchangedLine)
{
   const std::string original =
       "# leading comment\n.encoding = \"UTF-8\"\n\n   # indented comment\n"
       "alpha = \"one\"   # trailing\nbeta=2\n.unknownMeta = \"x\"\ngamma = \"caf\xc3\xa9\"\n"
       "\t\ndelta = \"last\"";
   LogCapture log;
   Loaded l = LoadText(original);
   ASSERT_TRUE(l.ok) << l.messages;
   EXPECT_THAT(log.Text(), HasSubstr("DictionaryParseReadLine: \"f\" line 7: unrecognized "
                                     "metavariable \".unknownMeta\"\n"));
   Dictionary_SetLong(l.dict, "beta", 3);
   Dictionary_SetString(l.dict, "added", "new");
   Dictionary_SetString(l.dict, "alpha", "one");  // unchanged: the line stays as it was
   std::string expected = original;
   expected.replace(expected.find("beta=2"), 6, "beta = \"3\"");
   EXPECT_EQ(WriteText(l.dict), expected + "\nadded = \"new\"\n");

   // The encoding line goes after the leading comments and the interpreter line.
   const std::tuple<const char *, const char *, const char *> cases[] = {
       {"#!/bin/interp\n# c\nx = \"1\"\n", "/other",
        "#!/bin/interp\n# c\n.encoding = \"UTF-8\"\nx = \"1\"\n"},
       {"x = \"1\"\n", "/usr/bin/env run",
        "#!/usr/bin/env run\n.encoding = \"UTF-8\"\nx = \"1\"\n"}};
   for (const auto &[text, interpreter, want] : cases) {
      Loaded c = LoadText(text);
      Dictionary_SetInterpreter(c.dict, interpreter);
      EXPECT_EQ(WriteText(c.dict), want);
   }
}

TEST(Dictionary, EncodingsReadAndWriteBack)
{
   // Encodings beyond the built-in converters need ICU, which a data file's presence turns on.
   ScratchDir icu;
   WriteFile(icu / (U_ICUDATA_NAME ".dat"), "x");
   CodeSet_Init(icu.Path().c_str());
   const std::tuple<const char *, std::string, std::string> cases[] = {
       {"windows-1252", "caf\xe9 \x80", "caf\xc3\xa9 \xe2\x82\xac"},
       {"utf-16be", "|00h|00i", "hi"},
   };
   for (const auto &[declared, fileValue, utf8] : cases) {
      SCOPED_TRACE(declared);
      Loaded l = LoadText(std::string("# c\n.Encoding = \"") + declared + "\"\nv = \"" + fileValue +
                          "\"\n");
      ASSERT_TRUE(l.ok) << l.messages;
      EXPECT_EQ(Get(l.dict, "v"), utf8);
      // Unchanged, the value's line comes back as it was; changed, it is encoded again.
      EXPECT_THAT(WriteText(l.dict), HasSubstr("v = \"" + fileValue + "\"\n"));
      Dictionary_SetString(l.dict, "v", "x");
      Dictionary_SetString(l.dict, "v", utf8.c_str());
      Loaded again = LoadText(WriteText(l.dict));
      ASSERT_TRUE(again.ok) << again.messages;
      EXPECT_EQ(Get(again.dict, "v"), utf8);
   }

   // A value the declared encoding cannot hold upgrades the file to UTF-8.
   Loaded l = LoadText(".encoding = \"ISO-8859-1\"\na = \"caf\xe9\"\n");
   Dictionary_SetString(l.dict, "b", "\xe2\x82\xac");
   LogCapture log;
   EXPECT_EQ(WriteText(l.dict),
             ".encoding = \"UTF-8\"\na = \"caf\xc3\xa9\"\nb = \"\xe2\x82\xac\"\n");
   EXPECT_THAT(log.Text(), HasSubstr("Dictionary_WriteToBuffer: upgrading encoding from "
                                     "ISO-8859-1 to UTF-8\n"));

   // A byte order mark means UTF-8 whatever the caller's default; otherwise the default holds.
   Loaded marked = LoadText("\xEF\xBB\xBFv = \"caf\xc3\xa9\"\n", "f", STRING_ENCODING_ISO_8859_1);
   EXPECT_STREQ(Dictionary_LookupString(marked.dict, "v"), "caf\xc3\xa9");
   Loaded latin = LoadText("v = \"caf\xe9\"\n", "f", STRING_ENCODING_ISO_8859_1);
   EXPECT_STREQ(Dictionary_LookupString(latin.dict, "v"), "caf\xc3\xa9");
}

TEST(Dictionary, ReadFailuresAndTheirMessages)
{
   const std::tuple<std::string, const char *, StringEncoding, std::string> cases[] = {
       {"a = 1\nb = x y\n", "f", 0,
        "[msg.dictionary.read.syntaxError] File \"f\" line 2: Syntax error.\n"},
       {"b = x y\n", nullptr, 0, "[msg.dictionary.read.syntaxErrorNoFile] Syntax error.\n"},
       {"a = 1\na = 2\n", "f", 0,
        "[msg.dictionary.alreadyDefined] File \"f\" line 2: Variable \"a\" is already defined.\n"},
       {"a = 1\na = 2\n", nullptr, 0,
        "[msg.dictionary.alreadyDefinedNoFile] Variable \"a\" is already defined.\n"},
       {"caf\xc3\xa9 = 1\n", "f", 0,
        "[msg.dictionary.nameNotASCII] File \"f\" line 1: Variable \"caf\xc3\xa9\" is not valid "
        "ASCII.\n"},
       {".encoding = \"klingon\"\n", "f", 0,
        "[msg.dictionary.unknownEncoding] File \"f\" (line 1) specifies a character encoding "
        "(klingon) that is not supported.\n"},
       {".encoding = \"klingon\"\n", nullptr, 0,
        "[msg.dictionary.unknownEncodingNoFile] Character encoding \"klingon\" is not "
        "supported.\n"},
       {".encoding = \"UTF-8\"\nconfig.encoding = \"ISO-8859-1\"\n", "f", 0,
        "[msg.dictionary.hasEncoding] File \"f\" (line 2) already has encoding \"UTF-8\".\n"},
       {".encoding = \"UTF-8\"\nconfig.encoding = \"ISO-8859-1\"\n", nullptr, 0,
        "[msg.dictionary.hasEncodingNoFile] The dictionary already has encoding \"UTF-8\".\n"},
       {".encoding = \"US-ASCII\"\na = \"\xe9\"\n", nullptr, 0,
        "[msg.dictionary.badEncodedInputNoFile] Value \"\xe9\" for variable \"a\" is not valid in "
        "encoding \"ASCII\".\n"},
       {"a = \"\xff\"\n", "f", 0,
        "[msg.dictionary.badEncodedInput] File \"f\" line 1: Value \"\xff\" for variable \"a\" is "
        "not valid in encoding \"UTF-8\".\n"
        "[msg.dictionary.badDefaultEncoding] An error occurred while decoding file \"f\" using the "
        "default character encoding.\n"},
       {"a = 1\n", "f", 9999,
        "[msg.dictionary.unknownEncodingNoLine] File \"f\": Character encoding \"\" is not "
        "supported.\n"
        "[msg.dictionary.badDefaultEncoding] An error occurred while decoding file \"f\" using the "
        "default character encoding.\n"},
   };
   for (const auto &[text, name, encoding, messages] : cases) {
      SCOPED_TRACE(text);
      Loaded l = LoadText(text, name, encoding);
      EXPECT_FALSE(l.ok);
      EXPECT_EQ(l.messages, messages);
   }

   std::string text = "a = 0\n";
   for (int i = 0; i < 150; i++) {
      text += "a = 1\n";
   }
   LogCapture log;
   Loaded l = LoadText(text + "b = 2\n");
   EXPECT_FALSE(l.ok);
   EXPECT_THAT(log.Text(), HasSubstr("DictionaryReadLines: \"f\" line 102: too many duplicate "
                                     "entries in dictionary, quitting.\n"));
   EXPECT_FALSE(Dictionary_IsDefined(l.dict, "b"));
}

TEST(Dictionary, TypedGets)
{
   Loaded l = LoadText(
       "empty = \"\"\nyes = \"Yes\"\noff = \"OFF\"\nbad = \"maybe\"\n"
       "wrap = \"4294967296\"\nhuge = \"99999999999999999999\"\n"
       "neg = \"-5\"\nhalf = \"0.5\"\ninf = \"1e999\"\n"
       "auto = \"Auto\"\nmax64 = \"18446744073709551615\"\nsp = \"5 \"\n");
   ASSERT_TRUE(l.ok) << l.messages;
   Dictionary *d = l.dict;
   MsgList *msgs = nullptr;
   EXPECT_TRUE(Dictionary_GetBool(d, false, "empty", &msgs));
   EXPECT_FALSE(Dictionary_GetBool(d, true, "off", &msgs));
   EXPECT_EQ(Dictionary_GetLong(d, 7, "wrap", &msgs), 0);
   EXPECT_EQ(Dictionary_GetDouble(d, 0, "half", &msgs), 0.5);
   EXPECT_EQ(Dictionary_GetTriState(d, 0, "auto", &msgs), -1);
   EXPECT_EQ(Dictionary_GetTriState(d, 0, "yes", &msgs), 1);
   EXPECT_EQ(Dictionary_GetInt64(d, 0, "max64", &msgs), -1);
   EXPECT_EQ(Dictionary_GetInt64(d, 0, "neg", &msgs), -5);
   EXPECT_EQ(Messages(msgs), "");
   msgs = nullptr;

   EXPECT_TRUE(Dictionary_GetBool(d, true, "bad", &msgs));
   EXPECT_EQ(Dictionary_GetLong(d, 3, "huge", &msgs), 3);
   EXPECT_EQ(Dictionary_GetLong(d, 4, "sp", &msgs), 4);
   EXPECT_EQ(Dictionary_GetDouble(d, 1.5, "inf", &msgs), 1.5);
   EXPECT_EQ(Dictionary_GetDouble(d, 2, "bad", &msgs), 2);
   EXPECT_EQ(Dictionary_GetTriState(d, -1, "bad", &msgs), -1);
   EXPECT_EQ(Dictionary_GetInt64(d, 9, "huge", &msgs), 9);
   EXPECT_EQ(Dictionary_GetInt64(d, 8, "bad", &msgs), 8);
   EXPECT_EQ(Messages(msgs),
             "[msg.dictionary.notBoolean] Value \"maybe\" for variable \"bad\" is not a valid "
             "boolean value. Using value \"TRUE\".\n"
             "[msg.dictionary.integerOutOfRange] Value \"99999999999999999999\" for variable "
             "\"huge\" is out of range. Using value \"3\".\n"
             "[msg.dictionary.notInteger] Value \"5 \" for variable \"sp\" is not a valid integer "
             "value. Using value \"4\".\n"
             "[msg.dictionary.doubleOutOfRange] Value \"1e999\" for variable \"inf\" is out of "
             "range. Using value \"1.500000\".\n"
             "[msg.dictionary.notFloat] Value \"maybe\" for variable \"bad\" is not a valid "
             "floating point value. Using value \"2.000000\".\n"
             "[msg.dictionary.notTristate] Value \"maybe\" for variable \"bad\" is not a valid "
             "tristate value. Using value \"default\".\n"
             "[msg.dictionary.integer64OutOfRange] Value \"99999999999999999999\" for variable "
             "\"huge\" is out of range. Using value \"9\".\n"
             "[msg.dictionary.notInteger64] Value \"maybe\" for variable \"bad\" is not a valid "
             "integer value. Using value \"8\".\n");
}

TEST(Dictionary, TypedSetsAndNames)
{
   Dictionary *d = Dictionary_Create();
   Dictionary_SetBool(d, "b", true);
   Dictionary_SetLong(d, "l", -7);
   Dictionary_SetDouble(d, "d", 1.0 / 3);
   Dictionary_SetTriState(d, "t", -1);
   Dictionary_SetInt64(d, "i", -9000000000LL);
   Dictionary_SetString(d, "s", "");
   EXPECT_EQ(WriteText(d),
             ".encoding = \"UTF-8\"\nb = \"TRUE\"\nl = \"-7\"\nd = \"0.333333333\"\n"
             "t = \"DEFAULT\"\ni = \"-9000000000\"\ns = \"\"\n");

   MsgList *msgs = nullptr;
   EXPECT_FALSE(Dictionary_SetFromString(d, "s=again", false, &msgs));
   EXPECT_TRUE(Dictionary_SetFromString(d, "n", false, &msgs));
   EXPECT_TRUE(Dictionary_SetFromString(d, "s=a=b", true, &msgs));
   EXPECT_STREQ(Dictionary_LookupString(d, "n"), "");
   EXPECT_STREQ(Dictionary_LookupString(d, "s"), "a=b");
   EXPECT_EQ(Messages(msgs),
             "[msg.dictionary.alreadyDefined.string] Variable \"s\" is already defined.\n");

   // Letters differing in case are one name; "@" and "`", "[" and "{" are not.
   for (const char *name : {"x@1", "x`1", "a[b", "A[B"}) {
      Dictionary_SetString(d, name, name);
   }
   EXPECT_EQ(Get(d, "X@1"), "x@1");
   EXPECT_EQ(Get(d, "a[b"), "A[B");
   EXPECT_FALSE(Dictionary_IsDefined(d, "a{b"));
   EXPECT_TRUE(Dictionary_Unset(d, "x@1"));
   for (int i = 0; i < 1000; i++) {  // growing the index loses nothing
      Dictionary_SetLong(d, ("n" + std::to_string(i)).c_str(), i);
   }
   EXPECT_EQ(Get(d, "x`1"), "x`1");
   EXPECT_EQ(Dictionary_GetLong(d, -1, "N999", nullptr), 999);
   Dictionary_Free(d);
}

TEST(Dictionary, DumpHidesSecrets)
{
   Loaded l = LoadText(
       "s = \"text\"\nannotation = \"x\"\nguestinfo.a = \"x\"\nvm.key = \"x\"\n"
       ".key = \"x\"\nb = \"yes\"\n");
   ASSERT_TRUE(l.ok) << l.messages;
   Dictionary_GetBool(l.dict, false, "b", nullptr);  // a typed value shows in its own form
   LogCapture log;
   Dictionary_Log(l.dict);
   EXPECT_EQ(log.Text(),
             "DICT                         s = \"text\"\n"
             "DICT                annotation = <not printed>\n"
             "DICT               guestinfo.a = <not printed>\n"
             "DICT                    vm.key = <not printed>\n"
             "DICT                         b = \"TRUE\"\n");
}

TEST(Dictionary, FilesOnDisk)
{
   ScratchDir dir;
   std::string path = dir / "config";
   WriteFile(path, "# c\na = \"1\"\n");
   chmod(path.c_str(), 0640);
   Dictionary *d = Dictionary_Create();
   MsgList *msgs = nullptr;
   ASSERT_TRUE(DictionaryLoad(d, path.c_str(), true, STRING_ENCODING_UTF8, &msgs));
   Dictionary_SetString(d, "a", "2");
   ASSERT_TRUE(Dictionary_WriteFile(d, path.c_str(), &msgs));
   EXPECT_EQ(ReadFile(path), "# c\n.encoding = \"UTF-8\"\na = \"2\"\n");
   struct stat st;
   EXPECT_TRUE(stat(path.c_str(), &st) == 0 && (st.st_mode & 0777) == 0640);
   ASSERT_TRUE(Dictionary_MakeExecutable(path.c_str()));
   EXPECT_TRUE(stat(path.c_str(), &st) == 0 && (st.st_mode & 0777) == 0750);
   EXPECT_FALSE(Dictionary_MakeExecutable((dir / "missing").c_str()));

   // Loading with clear replaces everything; a failed load reports why.
   WriteFile(path, "b = \"3\"\n");
   ASSERT_TRUE(DictionaryLoad(d, path.c_str(), true, STRING_ENCODING_UTF8, &msgs));
   EXPECT_FALSE(Dictionary_IsDefined(d, "a"));
   LogCapture log;
   EXPECT_FALSE(DictionaryLoad(d, (dir / "missing").c_str(), true, STRING_ENCODING_UTF8, &msgs));
   EXPECT_FALSE(DictionaryLoad(d, dir.Path().c_str(), true, STRING_ENCODING_UTF8, &msgs));
   EXPECT_EQ(Messages(msgs), "[msg.dictionary.load.openFailed] Cannot open file \"" +
                                 dir / "missing" + "\": No such file or directory.\n" +
                                 "[msg.dictionary.load.isDirectory] \"" + dir.Path() +
                                 "\" is a directory.\n");
   EXPECT_THAT(log.Text(), HasSubstr("DictionaryLoad: \"" + dir.Path() + "\" is a directory.\n"));
   Dictionary_Free(d);

   // A copy of an open file, position kept.
   int fd = open(path.c_str(), O_RDONLY);
   ASSERT_EQ(lseek(fd, 3, SEEK_SET), 3);
   DictionarySaveFileCopy(fd, path.c_str());
   EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 3);
   close(fd);
   EXPECT_EQ(ReadFile(path + "-copy-0"), "b = \"3\"\n");
}

/* What the first line of text reads as: the line, the bytes consumed, whether it is an entry,
 * its name and value. */
std::tuple<std::string, size_t, bool, std::string, std::string> Unmarshal(const std::string &text)
{
   char *line, *name, *value;
   size_t lineLength, valueLength;
   const char *next = DictLL_UnmarshalLineEx(text.data(), text.size(), &line, &lineLength, &name,
                                             &value, &valueLength);
   std::tuple u{std::string(line, lineLength), (size_t)(next - text.data()), name != nullptr,
                std::string(name != nullptr ? name : ""),
                value != nullptr ? std::string(value, valueLength) : ""};
   free(line);
   free(name);
   free(value);
   return u;
}

TEST(DictLL, LineGrammar)
{
   const std::tuple<std::string, bool, const char *, std::string> cases[] = {
       {"a = \"x y\" # note", true, "a", "x y"},
       {"a = x y", false, "", ""},
       {"a =", true, "a", ""},
       {"  a\t=\t\"q\"\t", true, "a", "q"},
       {"a = \"unterminated", false, "", ""},
       {"a = v#c", true, "a", "v"},
       {"=b", false, "", ""},
       {"name", false, "", ""},
       {"a = \"|41|7c|zz|\"", true, "a", "A||zz|"},
       {"a = \"|4\"", true, "a", "|4"},
       // A NUL byte ends neither the line nor a quoted value; outside quotes it spoils the line.
       {std::string("a = \"x\0y\"", 9), true, "a", std::string("x\0y", 3)},
       {std::string("a = x\0y", 7), false, "", ""},
   };
   for (const auto &[text, entry, name, value] : cases) {
      SCOPED_TRACE(text);
      EXPECT_EQ(Unmarshal(text + "\nnext"),
                std::tuple(text, text.size() + 1, entry, std::string(name), value));
   }
   EXPECT_EQ(std::get<1>(Unmarshal("a = 1")), 5u);  // the last line needs no newline
}

TEST(DictLL, MarshalAndStreamLines)
{
   DynBuf buf;
   DynBuf_Init(&buf);
   EXPECT_TRUE(DictLL_MarshalLine(&buf, "a", "x\n\"|\t\x7f\xc3\xa9"));
   EXPECT_TRUE(DictLL_MarshalLine(&buf, nullptr, "# verbatim"));
   EXPECT_EQ(std::string(static_cast<char *>(DynBuf_Get(&buf)), DynBuf_GetSize(&buf)),
             "a = \"x|0A|22|7C\t|7F\xc3\xa9\"\n# verbatim\n");
   DynBuf_Destroy(&buf);

   char text[] =
       "\xEF\xBB\xBF"
       "a = \"1\"\n# c\n";
   FILE *f = fmemopen(text, sizeof text - 1, "r");
   EXPECT_TRUE(DictLL_ReadUTF8BOM(f));
   // Each line read as "line|name|value", "(null)" for an absent part.
   auto next = [&f](int expected) {
      char *line = nullptr, *name = nullptr, *value = nullptr;
      EXPECT_EQ(DictLL_ReadLine(f, &line, &name, &value), expected);
      return Take(line) + "|" + Take(name) + "|" + Take(value);
   };
   EXPECT_EQ(next(DICTLL_LINE), "a = \"1\"|a|1");
   EXPECT_EQ(next(DICTLL_LINE), "# c|(null)|(null)");
   EXPECT_EQ(next(DICTLL_EOF), "(null)|(null)|(null)");
   fclose(f);

   // Half a mark is put back whole.
   char partial[] = "\xEF\xBB# c\n";
   f = fmemopen(partial, sizeof partial - 1, "r");
   EXPECT_FALSE(DictLL_ReadUTF8BOM(f));
   EXPECT_EQ(next(DICTLL_LINE), "\xEF\xBB# c|(null)|(null)");
   fclose(f);
}

}  // namespace
