/*
 * Dictionary files: reading, messages, typed values, encodings, writing back, the dump and the
 * small file helpers.
 */
#include <fcntl.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include <unicode/utypes.h>

#include "codeset.h"
#include "dictionary.h"
#include "testSupport.h"

namespace {

using namespace testsupport;

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

TEST(Dictionary, WriteBackKeepsEveryUnchangedLine)
{
   const std::string original =
       "# leading comment\n"
       ".encoding = \"UTF-8\"\n"
       "\n"
       "   # indented comment\n"
       "alpha = \"one\"   # trailing\n"
       "beta=2\n"
       ".unknownMeta = \"x\"\n"
       "gamma = \"caf\xc3\xa9\"\n"
       "\t\n"
       "delta = \"last\"";
   LogCapture log;
   Loaded l = LoadText(original);
   ASSERT_TRUE(l.ok) << l.messages;
   EXPECT_NE(log.Text().find("DictionaryParseReadLine: \"f\" line 7: unrecognized metavariable "
                             "\".unknownMeta\"\n"),
             std::string::npos);
   Dictionary_SetLong(l.dict, "beta", 3);
   Dictionary_SetString(l.dict, "added", "new");
   // Setting an unchanged value keeps the line as it was.
   Dictionary_SetString(l.dict, "alpha", "one");
   std::string expected = original;
   expected.replace(expected.find("beta=2"), 6, "beta = \"3\"");
   expected += "\nadded = \"new\"\n";
   EXPECT_EQ(WriteText(l.dict), expected);
}

TEST(Dictionary, EncodingLineGoesAfterTheLeadingComments)
{
   const std::tuple<const char *, const char *, const char *> cases[] = {
       {"#!/bin/interp\n# c\nx = \"1\"\n", "/other",
        "#!/bin/interp\n# c\n.encoding = \"UTF-8\"\nx = \"1\"\n"},
       {"x = \"1\"\n", "/usr/bin/env run",
        "#!/usr/bin/env run\n.encoding = \"UTF-8\"\nx = \"1\"\n"}};
   for (const auto &[text, interpreter, expected] : cases) {
      Loaded l = LoadText(text);
      ASSERT_TRUE(l.ok);
      Dictionary_SetInterpreter(l.dict, interpreter);
      EXPECT_EQ(WriteText(l.dict), expected);
   }
}

TEST(Dictionary, ControlBytesQuotesAndBarsSurviveARoundTrip)
{
   std::string value = "line1\nline2 \"quoted\" a|b";
   for (int c = 0; c < 0x20; c++) {
      value.push_back((char)c);
   }
   value.push_back('\x7f');
   Dictionary *dict = Dictionary_Create();
   Dictionary_SetBytes(dict, "v", value.data(), value.size());
   std::string text = WriteText(dict);
   EXPECT_NE(text.find("line1|0Aline2 |22quoted|22 a|7Cb|00|01"), std::string::npos);
   Dictionary_Free(dict);

   Loaded back = LoadText(text);
   ASSERT_TRUE(back.ok) << back.messages;
   size_t length = 0;
   const char *bytes = Dictionary_GetBytes(back.dict, "v", &length);
   ASSERT_NE(bytes, nullptr);
   EXPECT_EQ(std::string(bytes, length), value);
   EXPECT_EQ(WriteText(back.dict), text);
}

TEST(Dictionary, DeclaredEncodingsReadAndWriteBack)
{
   // Encodings beyond the built-in converters need ICU, which a data file's presence turns on.
   ScratchDir icu;
   WriteFile(icu / (U_ICUDATA_NAME ".dat"), "x");
   CodeSet_Init(icu.Path().c_str());
   struct Case {
      const char *declared;
      std::string fileValue;
      std::string utf8;
   } cases[] = {
       {"UTF-8", "caf\xc3\xa9", "caf\xc3\xa9"},
       {"windows-1252", "caf\xe9 \x80", "caf\xc3\xa9 \xe2\x82\xac"},
       {"ISO-8859-1", "caf\xe9", "caf\xc3\xa9"},
       {"UTF-16LE", "h|00i|00", "hi"},
       {"utf-16be", "|00h|00i", "hi"},
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(c.declared);
      std::string text =
          std::string("# c\n.Encoding = \"") + c.declared + "\"\nv = \"" + c.fileValue + "\"\n";
      Loaded l = LoadText(text);
      ASSERT_TRUE(l.ok) << l.messages;
      EXPECT_EQ(Take(Dictionary_GetString(l.dict, nullptr, "v", nullptr)), c.utf8);
      // Unchanged, the file comes back as it was (the declaration in its canonical spelling).
      std::string written = WriteText(l.dict);
      EXPECT_NE(written.find("v = \"" + c.fileValue + "\"\n"), std::string::npos) << written;
      // Changed, the value is encoded again.
      Dictionary_SetString(l.dict, "v", "x");
      Dictionary_SetString(l.dict, "v", c.utf8.c_str());
      written = WriteText(l.dict);
      Loaded again = LoadText(written);
      ASSERT_TRUE(again.ok) << again.messages << written;
      EXPECT_EQ(Take(Dictionary_GetString(again.dict, nullptr, "v", nullptr)), c.utf8);
   }
}

TEST(Dictionary, UnrepresentableValueUpgradesTheFileToUtf8)
{
   Loaded l = LoadText(".encoding = \"ISO-8859-1\"\na = \"caf\xe9\"\n");
   ASSERT_TRUE(l.ok) << l.messages;
   Dictionary_SetString(l.dict, "b", "\xe2\x82\xac");
   LogCapture log;
   std::string text = WriteText(l.dict);
   EXPECT_NE(log.Text().find("Dictionary_WriteToBuffer: upgrading encoding from ISO-8859-1 to "
                             "UTF-8\n"),
             std::string::npos)
       << log.Text();
   EXPECT_EQ(text, ".encoding = \"UTF-8\"\na = \"caf\xc3\xa9\"\nb = \"\xe2\x82\xac\"\n");
}

TEST(Dictionary, ReadFailuresAndTheirMessages)
{
   struct Case {
      std::string text;
      const char *name;
      StringEncoding encoding;
      std::string messages;
   } cases[] = {
       {"a = 1\nb = x y\n", "f", 0,
        "[msg.dictionary.read.syntaxError] File \"f\" line 2: Syntax error.\n"},
       {"b = x y\n", nullptr, 0, "[msg.dictionary.read.syntaxErrorNoFile] Syntax error.\n"},
       {"a = 1\na = 2\nA = 3\n", "f", 0,
        "[msg.dictionary.alreadyDefined] File \"f\" line 2: Variable \"a\" is already defined.\n"
        "[msg.dictionary.alreadyDefined] File \"f\" line 3: Variable \"A\" is already defined.\n"},
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
       {"a = \"\xff\"\n.encoding = \"UTF-8\"\n", "f", 0,
        "[msg.dictionary.badEncodedInput] File \"f\" line 1: Value \"\xff\" for variable \"a\" is "
        "not valid in encoding \"UTF-8\".\n"},
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
   for (const auto &c : cases) {
      SCOPED_TRACE(c.text);
      Loaded l = LoadText(c.text, c.name, c.encoding);
      EXPECT_FALSE(l.ok);
      EXPECT_EQ(l.messages, c.messages);
   }
}

TEST(Dictionary, ByteOrderMarkAndDefaultEncodings)
{
   // A marked file is read as UTF-8 even when the caller's default is another encoding.
   Loaded marked = LoadText("\xEF\xBB\xBFv = \"caf\xc3\xa9\"\n", "f", STRING_ENCODING_ISO_8859_1);
   ASSERT_TRUE(marked.ok) << marked.messages;
   EXPECT_STREQ(Dictionary_LookupString(marked.dict, "v"), "caf\xc3\xa9");
   EXPECT_EQ(Dictionary_GetEncoding(marked.dict), STRING_ENCODING_UTF8);

   Loaded latin = LoadText("v = \"caf\xe9\"\n", "f", STRING_ENCODING_ISO_8859_1);
   ASSERT_TRUE(latin.ok) << latin.messages;
   EXPECT_STREQ(Dictionary_LookupString(latin.dict, "v"), "caf\xc3\xa9");
}

TEST(Dictionary, TooManyDuplicatesStopTheRead)
{
   std::string text = "a = 0\n";
   for (int i = 0; i < 150; i++) {
      text += "a = 1\n";
   }
   text += "b = 2\n";
   LogCapture log;
   Loaded l = LoadText(text);
   EXPECT_FALSE(l.ok);
   EXPECT_NE(log.Text().find("DictionaryReadLines: \"f\" line 102: too many duplicate entries in "
                             "dictionary, quitting.\n"),
             std::string::npos);
   EXPECT_FALSE(Dictionary_IsDefined(l.dict, "b"));
}

TEST(Dictionary, TypedGets)
{
   Loaded l = LoadText(
       "empty = \"\"\nyes = \"Yes\"\noff = \"OFF\"\nbad = \"maybe\"\n"
       "big = \"4294967295\"\nwrap = \"4294967296\"\nhuge = \"99999999999999999999\"\n"
       "hex = \"0x10\"\nneg = \"-5\"\nhalf = \"0.5\"\ninf = \"1e999\"\n"
       "auto = \"Auto\"\nmax64 = \"18446744073709551615\"\nsp = \"5 \"\n");
   ASSERT_TRUE(l.ok) << l.messages;
   Dictionary *d = l.dict;
   MsgList *msgs = nullptr;
   EXPECT_TRUE(Dictionary_GetBool(d, false, "empty", &msgs));
   EXPECT_TRUE(Dictionary_GetBool(d, false, "yes", &msgs));
   EXPECT_FALSE(Dictionary_GetBool(d, true, "off", &msgs));
   EXPECT_TRUE(Dictionary_GetBool(d, true, "missing", &msgs));
   EXPECT_EQ(Dictionary_GetLong(d, 0, "big", &msgs), -1);
   EXPECT_EQ(Dictionary_GetLong(d, 7, "wrap", &msgs), 0);
   EXPECT_EQ(Dictionary_GetLong(d, 0, "hex", &msgs), 16);
   EXPECT_EQ(Dictionary_GetLong(d, 0, "neg", &msgs), -5);
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
   EXPECT_EQ(Dictionary_GetLong(d, 3, "bad", &msgs), 3);
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
             "integer value. Using value \"8\".\n"
             "[msg.dictionary.notInteger] Value \"maybe\" for variable \"bad\" is not a valid "
             "integer value. Using value \"3\".\n");
   // A value read as a type keeps its line until it is changed.
   EXPECT_NE(WriteText(d).find("yes = \"Yes\"\n"), std::string::npos);
}

TEST(Dictionary, TypedSetsAreWrittenInTheirForms)
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
   EXPECT_EQ(Dictionary_GetTypedText(d, "l", DICT_BOOL, nullptr), nullptr);
   EXPECT_EQ(Take(Dictionary_GetTypedText(d, "b", DICT_STRING, nullptr)), "TRUE");

   MsgList *msgs = nullptr;
   EXPECT_FALSE(Dictionary_SetFromString(d, "s=again", false, &msgs));
   EXPECT_TRUE(Dictionary_SetFromString(d, "n", false, &msgs));
   EXPECT_TRUE(Dictionary_SetFromString(d, "s=a=b", true, &msgs));
   EXPECT_STREQ(Dictionary_LookupString(d, "n"), "");
   EXPECT_STREQ(Dictionary_LookupString(d, "s"), "a=b");
   EXPECT_EQ(Messages(msgs),
             "[msg.dictionary.alreadyDefined.string] Variable \"s\" is already "
             "defined.\n");
   EXPECT_TRUE(Dictionary_Unset(d, "l"));
   EXPECT_FALSE(Dictionary_Unset(d, "l"));
   EXPECT_EQ(Dictionary_NumEntries(d), 6u);
   EXPECT_PANIC(Dictionary_GetTypedText(d, "s", 7, nullptr),
                "NOT_REACHED lib/user/dictionary_core:");
   Dictionary_Free(d);
}

TEST(Dictionary, NamesThatShareAnIndexSlot)
{
   // Names that differ only in a non-letter's 0x20 bit ("@" and "`", "[" and "{") are distinct
   // names on one index chain; letters differing in case are one name.
   Dictionary *d = Dictionary_Create();
   const char *names[] = {"x@1", "x`1", "a[b", "a{b", "A[B"};
   for (int i = 0; i < 5; i++) {
      Dictionary_SetLong(d, names[i], i);
   }
   EXPECT_EQ(Dictionary_NumEntries(d), 4u);
   EXPECT_EQ(Dictionary_GetLong(d, -1, "X@1", nullptr), 0);
   EXPECT_EQ(Dictionary_GetLong(d, -1, "x`1", nullptr), 1);
   EXPECT_EQ(Dictionary_GetLong(d, -1, "a[b", nullptr), 4);
   EXPECT_TRUE(Dictionary_Unset(d, "x@1"));
   EXPECT_FALSE(Dictionary_IsDefined(d, "x@1"));
   EXPECT_EQ(Dictionary_GetLong(d, -1, "x`1", nullptr), 1);
   EXPECT_TRUE(Dictionary_Unset(d, "A{B"));
   EXPECT_EQ(Dictionary_GetLong(d, -1, "a[B", nullptr), 4);
   EXPECT_FALSE(Dictionary_IsDefined(d, "a{b"));
   // Growing the index keeps every chain.
   for (int i = 0; i < 1000; i++) {
      Dictionary_SetLong(d, ("n" + std::to_string(i)).c_str(), i);
   }
   EXPECT_EQ(Dictionary_GetLong(d, -1, "x`1", nullptr), 1);
   EXPECT_EQ(Dictionary_GetLong(d, -1, "N999", nullptr), 999);
   Dictionary_Free(d);
}

TEST(Dictionary, DumpHidesSecrets)
{
   Loaded l = LoadText(
       "s = \"text\"\nannotation = \"x\"\nguestinfo.a = \"x\"\nvm.key = \"x\"\n"
       ".key = \"x\"\nn = \"5\"\nb = \"yes\"\nd = \"2.5\"\ni = \"12\"\n");
   ASSERT_TRUE(l.ok) << l.messages;
   Dictionary_GetLong(l.dict, 0, "n", nullptr);
   Dictionary_GetBool(l.dict, false, "b", nullptr);
   Dictionary_GetDouble(l.dict, 0, "d", nullptr);
   Dictionary_GetInt64(l.dict, 0, "i", nullptr);
   LogCapture log;
   Dictionary_Log(l.dict);
   EXPECT_EQ(log.Text(),
             "DICT                         s = \"text\"\n"
             "DICT                annotation = <not printed>\n"
             "DICT               guestinfo.a = <not printed>\n"
             "DICT                    vm.key = <not printed>\n"
             "DICT                         n = \"5\"\n"
             "DICT                         b = \"TRUE\"\n"
             "DICT                         d = \"2.5\"\n"
             "DICT                         i = \"12\"\n");
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
   ASSERT_EQ(stat(path.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 0777, 0640u);

   ASSERT_TRUE(Dictionary_MakeExecutable(path.c_str()));
   ASSERT_EQ(stat(path.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 0777, 0750u);

   // Loading with clear replaces everything; a failed load reports why.
   WriteFile(path, "b = \"3\"\n");
   ASSERT_TRUE(DictionaryLoad(d, path.c_str(), true, STRING_ENCODING_UTF8, &msgs));
   EXPECT_FALSE(Dictionary_IsDefined(d, "a"));
   LogCapture log;
   EXPECT_FALSE(DictionaryLoad(d, (dir / "missing").c_str(), true, STRING_ENCODING_UTF8, &msgs));
   EXPECT_FALSE(DictionaryLoad(d, dir.Path().c_str(), true, STRING_ENCODING_UTF8, &msgs));
   EXPECT_EQ(Messages(msgs), "[msg.dictionary.load.openFailed] Cannot open file \"" +
                                 dir / "missing" +
                                 "\": No such file or directory.\n"
                                 "[msg.dictionary.load.isDirectory] \"" +
                                 dir.Path() + "\" is a directory.\n");
   EXPECT_NE(log.Text().find("DictionaryLoad: \"" + dir.Path() + "\" is a directory.\n"),
             std::string::npos);
   Dictionary_Free(d);

   // A copy of an open file, position kept.
   int fd = open(path.c_str(), O_RDONLY);
   ASSERT_GE(fd, 0);
   ASSERT_EQ(lseek(fd, 3, SEEK_SET), 3);
   DictionarySaveFileCopy(fd, path.c_str());
   DictionarySaveFileCopy(fd, path.c_str());
   EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 3);
   close(fd);
   EXPECT_EQ(ReadFile(path + "-copy-0"), "b = \"3\"\n");
   EXPECT_EQ(ReadFile(path + "-copy-1"), "b = \"3\"\n");

   EXPECT_EQ(Take(Dictionary_DeriveFileName("base", "ext")), "base.ext");
   EXPECT_FALSE(Dictionary_MakeExecutable((dir / "missing").c_str()));
}

}  // namespace
