/*
 * User messages: catalogue lookup per locale, posting, auto-answers, question callbacks, the
 * console question through a pipe, size texts and error texts.
 */
#include <gmock/gmock.h>
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "msg.h"
#include "preference.h"
#include "testSupport.h"

namespace {

using namespace testsupport;
using ::testing::HasSubstr;
using ::testing::Not;

class MsgTest : public ::testing::Test {
  protected:
   void SetUp() override
   {
      TearDown();
      Msg_Reset(false);
   }
   void TearDown() override
   {
      Preference_Exit();
      Msg_SetCallback(nullptr);
      Msg_SetLocaleEx(nullptr, "app", nullptr);
   }
   /* Writes the catalogue of locale and selects it. */
   bool Catalogue(const std::string &locale, const std::string &text)
   {
      std::filesystem::create_directories(dir_ / ("messages/" + locale));
      std::ofstream(dir_ / ("messages/" + locale + "/app.tmsg")) << text;
      return Select(locale.c_str());
   }
   bool Select(const char *locale) { return Msg_SetLocaleEx(locale, "app", dir_.Path().c_str()); }
   /* Records posts ("type:id:text") and progress ("text percent") in seen_. */
   void Record()
   {
      cb_.post = [](void *ctx, int type, const char *text, const char *id) {
         static_cast<Seen *>(ctx)->push_back(std::to_string(type) + ":" + id + ":" + text);
      };
      cb_.progress = [](void *ctx, const char *text, int percent, bool) {
         static_cast<Seen *>(ctx)->push_back(std::string(text) + " " + std::to_string(percent));
         return 1;
      };
      cb_.context = &seen_;
      Msg_SetCallback(&cb_);
   }
   using Seen = std::vector<std::string>;
   ScratchDir dir_;
   MsgCallback cb_{};
   Seen seen_;
};

const char kQuestion[] = "@&!*@*@(msg.msg.question)Question";

TEST_F(MsgTest, LookupThroughTheCataloguePerLocale)
{
   EXPECT_EQ(Take(Msg_GetString("plain text")), "plain text");
   LogCapture log;
   ASSERT_TRUE(Catalogue("fr",
                         "msg.msg.question = \"Question en fran\xc3\xa7"
                         "ais\"\nbutton.ok = \"_D'accord\"\n"));
   EXPECT_EQ(log.Text(), "Msg_SetLocaleEx: HostLocale=UTF-8 UserLocale=fr\n");
   EXPECT_EQ(Take(Msg_GetString(kQuestion)),
             "Question en fran\xc3\xa7"
             "ais");
   EXPECT_EQ(Take(Msg_GetStringButton("@&!*@*@(button.ok)OK")), "D'accord");
   ASSERT_TRUE(Catalogue("de", "msg.msg.question = \"Frage\"\n"));
   EXPECT_EQ(Take(Msg_GetString(kQuestion)), "Frage");
   EXPECT_EQ(Take(Msg_GetString("@&!*@*@(msg.msg.other)Other")), "Other");

   // A missing catalogue keeps the old one; only a non-English locale warns.
   log.Clear();
   EXPECT_FALSE(Select("en_US"));
   EXPECT_THAT(log.Text(), Not(HasSubstr("Warning:")));
   EXPECT_FALSE(Select("it"));
   EXPECT_THAT(log.Text(), HasSubstr("Warning: Cannot load message dictionary \"" + dir_.Path() +
                                     "/messages/it/app.tmsg\".\n"));
   EXPECT_EQ(Take(Msg_GetString(kQuestion)), "Frage");
   ASSERT_TRUE(Msg_SetLocaleEx(nullptr, "app", nullptr));
   EXPECT_EQ(Take(Msg_GetString(kQuestion)), "Question");
   EXPECT_EQ(Take(Msg_GetStringButton("a__b_c")), "a_bc");

   const char *names[] = {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"};
   const std::tuple<std::vector<const char *>, const char *> locales[] = {
       {{"fr_FR:de", "it", nullptr, nullptr}, "fr_FR"},
       {{nullptr, "C", "de", nullptr}, "en"},
       {{nullptr, nullptr, "POSIX", "de"}, "en"},
       {{nullptr, nullptr, nullptr, "pt_BR.UTF-8"}, "pt_BR"},
       {{nullptr, nullptr, nullptr, nullptr}, "(null)"},
   };
   for (const auto &[values, expected] : locales) {
      for (int i = 0; i < 4; i++) {
         values[i] != nullptr ? setenv(names[i], values[i], 1) : unsetenv(names[i]);
      }
      EXPECT_EQ(Take(Msg_GetUserLocale()), expected);
   }
}

TEST_F(MsgTest, PostAndProgress)
{
   ASSERT_TRUE(Catalogue("fr", "msg.test.a = \"Fichier %s\"\n"));
   Record();
   LogCapture log;
   Msg_Append("@&!*@*@(msg.test.a)File %s", "x.cfg");
   Msg_Post(MSG_WARNING, "@&!*@*@(msg.test.b)Second %d", 2);
   EXPECT_THAT(log.Text(), ::testing::StartsWith("Msg_Post: Warning\nFichier x.cfg\nSecond 2\n"
                                                 "----------------------------------------\n"));
   EXPECT_EQ(Msg_TakeList(), nullptr);
   EXPECT_EQ(Msg_Progress(40, false, "@&!*@*@(msg.p)Copying %d files", 3), 1);
   void *lazy = Msg_LazyProgressStart(false, "@&!*@*@(msg.p)Step %s", "one");
   EXPECT_TRUE(Msg_LazyProgress(lazy, false, 50, nullptr));
   Msg_LazyProgressEnd(lazy);
   EXPECT_EQ(seen_,
             (Seen{"2:msg.test.a:Fichier x.cfg\nSecond 2\n", "Copying 3 files 40", "Step one 50"}));
   EXPECT_EQ(Msg_LazyProgressStart(false, "@&!*@*@(msg.p)Bad %y"), nullptr);
}

TEST_F(MsgTest, SettingsAnswerAndSilence)
{
   Preference_Init();
   Preference_SetFromString("answer.msg.q1=Cancel", true);
   Preference_SetFromString("answer.msg.q2=Nonexistent", true);
   LogCapture log;
   EXPECT_EQ(Msg_Question(Msg_OKCancelButtons, 0, "@&!*@*@(msg.q1)Go on?"), 1u);
   EXPECT_THAT(log.Text(), HasSubstr("MsgIsAnswered: Using config default 'Cancel' as the answer "
                                     "for 'msg.q1'\nMsgQuestion: msg.q1 reply=1\n"));

   // A setting naming no button falls back to msg.autoAnswer.
   Preference_SetFromString("msg.autoAnswer=TRUE", true);
   EXPECT_EQ(Msg_Question(Msg_OKCancelButtons, 1, "@&!*@*@(msg.q2)Really?"), 1u);
   EXPECT_THAT(log.Text(), HasSubstr("MsgIsAnswered: Using builtin default 'Cancel' as the answer "
                                     "for 'msg.q2'\n"));

   Preference_SetFromString("msg.autoAnswer=FALSE", true);
   Preference_SetFromString("msg.noOK=TRUE", true);
   Record();
   Msg_Post(MSG_INFO, "@&!*@*@(msg.i)Info text");
   EXPECT_THAT(log.Text(), HasSubstr("Warning: MSG: Info text\n"));
   Msg_Post(MSG_ERROR, "@&!*@*@(msg.e)Error text");
   EXPECT_EQ(seen_.size(), 1u);  // errors are never suppressed
   Preference_SetFromString("msg.noOKnoWarning=TRUE", true);
   log.Clear();
   Msg_Post(MSG_INFO, "@&!*@*@(msg.i)Info text");
   EXPECT_THAT(log.Text(), Not(HasSubstr("Warning:")));
   Msg_Hint(true, MSG_INFO, "@&!*@*@(msg.h)Hint text");
   EXPECT_THAT(log.Text(), HasSubstr("MsgHint: Not showing hint msg.h (Hint text\n).\n"));
}

std::vector<unsigned> gReplies;
int gButtonsSeen;

TEST_F(MsgTest, QuestionRepliesOutOfRange)
{
   MsgCallback cb{};
   cb.question = [](void *, const char *const *, int numButtons, int, const char *, const char *) {
      gButtonsSeen = numButtons;
      unsigned reply = gReplies.front();
      gReplies.erase(gReplies.begin());
      return reply;
   };
   Msg_SetCallback(&cb);
   LogCapture log;
   gReplies = {5, 1};
   EXPECT_EQ(Msg_Question(Msg_OKCancelButtons, 0, "@&!*@*@(msg.q)Q"), 1u);
   EXPECT_THAT(log.Text(),
               HasSubstr("MsgQuestion: Invalid reply: 5 (max = 1). Reposting question.\n"));
   gReplies = {2, 9};
   EXPECT_EQ(Msg_Question(Msg_OKCancelButtons, 1, "@&!*@*@(msg.q)Q"), 1u);
   EXPECT_THAT(log.Text(),
               HasSubstr("MsgQuestion: Invalid reply: 9 (max = 1).  Using default value.\n"));
   const char *many[] = {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", nullptr};
   gReplies = {3};
   EXPECT_EQ(Msg_Question(many, 0, "@&!*@*@(msg.q)Q"), 3u);
   EXPECT_EQ(gButtonsSeen, 9);

   // On the console: asked again until a valid reply, six prompts for six replies.
   char replies[] = "7\nabc\n2\n1x\n 1\n1  \n";
   FILE *input = fmemopen(replies, sizeof replies - 1, "r");
   char *shown = nullptr;
   size_t shownSize = 0;
   FILE *output = open_memstream(&shown, &shownSize);
   const char *buttons[] = {"Yes", "No"};
   EXPECT_EQ(Msg_ConsoleQuestion(input, output, buttons, 2, "Proceed?\n"), 1u);
   fclose(output);
   std::string prompts;
   for (int i = 0; i < 6; i++) {
      prompts += "Select a number from 0-1: ";
   }
   EXPECT_THAT(Take(shown),
               ::testing::EndsWith("Question:\nProceed?\n0) Yes\n1) No\n\n" + prompts));
   // A closed input ends with an invalid reply, which the caller replaces by the default.
   EXPECT_EQ(Msg_ConsoleQuestion(input, fopen("/dev/null", "w"), buttons, 2, "Again?\n"), 2u);
   fclose(input);
}

TEST_F(MsgTest, SizeAndErrorTexts)
{
   const std::pair<uint64_t, const char *> cases[] = {
       {0, "0 bytes"},       {1, "1 byte"},        {1023, "1023 bytes"},
       {1024, "1 KB"},       {1536, "1.5 KB"},     {(1ull << 20) - 1, "1024 KB"},
       {1ull << 20, "1 MB"}, {1ull << 40, "1 TB"}, {~0ull, "16777216 TB"},
   };
   for (const auto &[size, text] : cases) {
      EXPECT_EQ(Take(Msg_FormatSizeInBytes(size)), text) << size;
   }
   ASSERT_TRUE(Catalogue("fr", "msg.msg.kilobyte.abbreviation = \"%s Ko\"\n"));
   EXPECT_EQ(Take(Msg_FormatSizeInBytes(1536)), "1.5 Ko");
   EXPECT_EQ(Take(Msg_ErrString(2)), "Error 2 [No such file or directory]");
}

}  // namespace
