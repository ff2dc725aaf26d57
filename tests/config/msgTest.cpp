/*
 * User messages: catalogue lookup per locale, posting, auto-answers, question callbacks, the
 * console question through a pipe, size texts and error texts.
 */
#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <string>
#include <vector>

#include "msg.h"
#include "preference.h"
#include "testSupport.h"

namespace {

using namespace testsupport;

class MsgTest : public ::testing::Test {
  protected:
   void SetUp() override
   {
      Msg_Reset(false);
      Msg_SetCallback(nullptr);
      Msg_SetLocaleEx(nullptr, "app", nullptr);
   }
   void TearDown() override
   {
      Preference_Exit();
      Msg_SetCallback(nullptr);
      Msg_SetLocaleEx(nullptr, "app", nullptr);
   }
   void Catalogue(const std::string &locale, const std::string &text)
   {
      std::string dir = dir_ / ("messages/" + locale);
      ASSERT_EQ(system(("mkdir -p '" + dir + "'").c_str()), 0);
      std::ofstream(dir + "/app.tmsg") << text;
   }
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

TEST_F(MsgTest, LookupThroughTheCataloguePerLocale)
{
   EXPECT_EQ(Take(Msg_GetString("@&!*@*@(msg.msg.question)Question")), "Question");
   EXPECT_EQ(Take(Msg_GetString("plain text")), "plain text");
   Catalogue("fr",
             "msg.msg.question = \"Question en fran\xc3\xa7"
             "ais\"\nbutton.ok = \"_D'accord\"\n");
   Catalogue("de", "msg.msg.question = \"Frage\"\n");

   LogCapture log;
   ASSERT_TRUE(Msg_SetLocaleEx("fr", "app", dir_.Path().c_str()));
   EXPECT_EQ(log.Text(), "Msg_SetLocaleEx: HostLocale=UTF-8 UserLocale=fr\n");
   EXPECT_EQ(Take(Msg_GetString("@&!*@*@(msg.msg.question)Question")),
             "Question en fran\xc3\xa7"
             "ais");
   EXPECT_EQ(Take(Msg_GetStringButton("@&!*@*@(button.ok)OK")), "D'accord");
   EXPECT_EQ(Take(Msg_GetLocale()), "fr");
   ASSERT_TRUE(Msg_SetLocaleEx("de", "app", dir_.Path().c_str()));
   EXPECT_EQ(Take(Msg_GetString("@&!*@*@(msg.msg.question)Question")), "Frage");
   EXPECT_EQ(Take(Msg_GetString("@&!*@*@(msg.msg.other)Other")), "Other");

   // A missing catalogue keeps the old one; only a non-English locale warns.
   log.Clear();
   EXPECT_FALSE(Msg_SetLocaleEx("en_US", "app", dir_.Path().c_str()));
   EXPECT_EQ(log.Text().find("Warning:"), std::string::npos) << log.Text();
   EXPECT_FALSE(Msg_SetLocaleEx("it", "app", dir_.Path().c_str()));
   EXPECT_NE(log.Text().find("Warning: Cannot load message dictionary \"" + dir_.Path() +
                             "/messages/it/app.tmsg\".\n"),
             std::string::npos)
       << log.Raw();
   EXPECT_EQ(Take(Msg_GetString("@&!*@*@(msg.msg.question)Question")), "Frage");
   ASSERT_TRUE(Msg_SetLocaleEx(nullptr, "app", nullptr));
   EXPECT_EQ(Take(Msg_GetString("@&!*@*@(msg.msg.question)Question")), "Question");
   EXPECT_EQ(Take(Msg_GetStringButton("a__b_c")), "a_bc");
}

TEST_F(MsgTest, UserLocaleFromTheEnvironment)
{
   struct Case {
      const char *language, *all, *messages, *lang, *expected;
   } cases[] = {
       {"fr_FR:de", "it", nullptr, nullptr, "fr_FR"},
       {nullptr, "C", "de", nullptr, "en"},
       {nullptr, nullptr, "POSIX", "de", "en"},
       {nullptr, nullptr, nullptr, "pt_BR.UTF-8", "pt_BR"},
       {nullptr, nullptr, nullptr, nullptr, "(null)"},
   };
   for (const auto &c : cases) {
      const char *names[] = {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"};
      const char *values[] = {c.language, c.all, c.messages, c.lang};
      for (int i = 0; i < 4; i++) {
         if (values[i] != nullptr) {
            setenv(names[i], values[i], 1);
         } else {
            unsetenv(names[i]);
         }
      }
      EXPECT_EQ(Take(Msg_GetUserLocale()), c.expected);
   }
}

TEST_F(MsgTest, PostLogsTheLocalisedList)
{
   Catalogue("fr", "msg.test.a = \"Fichier %s\"\n");
   ASSERT_TRUE(Msg_SetLocaleEx("fr", "app", dir_.Path().c_str()));
   Record();
   LogCapture log;
   Msg_Append("@&!*@*@(msg.test.a)File %s", "x.cfg");
   Msg_Post(MSG_WARNING, "@&!*@*@(msg.test.b)Second %d", 2);
   // Then the lookups of the settings that could answer or silence it.
   EXPECT_EQ(log.Text().rfind("Msg_Post: Warning\nFichier x.cfg\nSecond 2\n"
                              "----------------------------------------\n"
                              "PREF early PreferenceGet(answer.msg.test.a), using default\n",
                              0),
             0u)
       << log.Text();
   EXPECT_EQ(seen_, Seen{"2:msg.test.a:Fichier x.cfg\nSecond 2\n"});
   EXPECT_EQ(Msg_TakeList(), nullptr);
}

TEST_F(MsgTest, SettingsAnswerAndSilence)
{
   Preference_Init();
   Preference_SetFromString("answer.msg.q1=Cancel", true);
   Preference_SetFromString("answer.msg.q2=Nonexistent", true);
   LogCapture log;
   EXPECT_EQ(Msg_Question(Msg_OKCancelButtons, 0, "@&!*@*@(msg.q1)Go on?"), 1u);
   EXPECT_NE(log.Text().find("MsgIsAnswered: Using config default 'Cancel' as the answer for "
                             "'msg.q1'\n"),
             std::string::npos)
       << log.Text();
   EXPECT_NE(log.Text().find("MsgQuestion: msg.q1 reply=1\n"), std::string::npos);

   // A setting naming no button falls back to msg.autoAnswer.
   Preference_SetFromString("msg.autoAnswer=TRUE", true);
   log.Clear();
   EXPECT_EQ(Msg_Question(Msg_OKCancelButtons, 1, "@&!*@*@(msg.q2)Really?"), 1u);
   EXPECT_NE(log.Text().find("MsgIsAnswered: Using builtin default 'Cancel' as the answer for "
                             "'msg.q2'\n"),
             std::string::npos)
       << log.Text();

   Preference_SetFromString("msg.autoAnswer=FALSE", true);
   Preference_SetFromString("msg.noOK=TRUE", true);
   Record();
   log.Clear();
   Msg_Post(MSG_INFO, "@&!*@*@(msg.i)Info text");
   EXPECT_NE(log.Text().find("Warning: MSG: Info text\n"), std::string::npos) << log.Text();
   Msg_Post(MSG_ERROR, "@&!*@*@(msg.e)Error text");
   EXPECT_EQ(seen_.size(), 1u);  // errors are never suppressed
   Preference_SetFromString("msg.noOKnoWarning=TRUE", true);
   log.Clear();
   Msg_Post(MSG_INFO, "@&!*@*@(msg.i)Info text");
   EXPECT_EQ(log.Text().find("Warning:"), std::string::npos);
   Msg_Hint(true, MSG_INFO, "@&!*@*@(msg.h)Hint text");
   EXPECT_NE(log.Text().find("MsgHint: Not showing hint msg.h (Hint text\n).\n"), std::string::npos)
       << log.Text();
}

struct Replies {
   std::vector<unsigned> replies;
   size_t next = 0;
   int buttonsSeen = 0;
};

TEST_F(MsgTest, QuestionCallbackRepliesOutOfRange)
{
   Replies r;
   MsgCallback cb{};
   cb.question = [](void *ctx, const char *const *buttons, int numButtons, int, const char *,
                    const char *) {
      auto *rr = static_cast<Replies *>(ctx);
      rr->buttonsSeen = numButtons;
      return rr->replies[rr->next++];
   };
   cb.context = &r;
   Msg_SetCallback(&cb);
   LogCapture log;
   r.replies = {5, 1};
   EXPECT_EQ(Msg_Question(Msg_OKCancelButtons, 0, "@&!*@*@(msg.q)Q"), 1u);
   EXPECT_NE(log.Text().find("MsgQuestion: Invalid reply: 5 (max = 1). Reposting question.\n"),
             std::string::npos);
   r = Replies{{2, 9}};
   EXPECT_EQ(Msg_Question(Msg_OKCancelButtons, 1, "@&!*@*@(msg.q)Q"), 1u);
   EXPECT_NE(log.Text().find("MsgQuestion: Invalid reply: 9 (max = 1).  Using default value.\n"),
             std::string::npos);

   const char *many[] = {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", nullptr};
   r = Replies{{3}};
   EXPECT_EQ(Msg_Question(many, 0, "@&!*@*@(msg.q)Q"), 3u);
   EXPECT_EQ(r.buttonsSeen, 9);
}

TEST_F(MsgTest, ConsoleQuestionAsksUntilAValidReply)
{
   char replies[] = "7\nabc\n2\n1x\n 1\n1  \n";
   FILE *input = fmemopen(replies, sizeof replies - 1, "r");
   char *shown = nullptr;
   size_t shownSize = 0;
   FILE *output = open_memstream(&shown, &shownSize);
   const char *buttons[] = {"Yes", "No"};
   EXPECT_EQ(Msg_ConsoleQuestion(input, output, buttons, 2, "Proceed?\n"), 1u);
   fclose(output);
   std::string text = Take(shown);
   // Six replies, five of them invalid: six prompts and nothing after them.
   std::string prompts;
   for (int i = 0; i < 6; i++) {
      prompts += "Select a number from 0-1: ";
   }
   EXPECT_TRUE(text.ends_with("Question:\nProceed?\n0) Yes\n1) No\n\n" + prompts)) << text;
   // A closed input ends with an invalid reply, which the caller replaces by the default.
   EXPECT_EQ(Msg_ConsoleQuestion(input, fopen("/dev/null", "w"), buttons, 2, "Again?\n"), 2u);
   fclose(input);
}

TEST_F(MsgTest, SizeTextsAtEveryUnitBoundary)
{
   const std::pair<uint64_t, const char *> cases[] = {
       {0, "0 bytes"},
       {1, "1 byte"},
       {1023, "1023 bytes"},
       {1024, "1 KB"},
       {1536, "1.5 KB"},
       {(1ull << 20) - 1, "1024 KB"},
       {1ull << 20, "1 MB"},
       {(1ull << 20) + (1ull << 19), "1.5 MB"},
       {(1ull << 30) - 1, "1024 MB"},
       {1ull << 30, "1 GB"},
       {1ull << 40, "1 TB"},
       {(1ull << 30) * 3 / 10 * 10 + (1ull << 30) / 10, "3.1 GB"},
       {~0ull, "16777216 TB"},
   };
   for (const auto &[size, text] : cases) {
      EXPECT_EQ(Take(Msg_FormatSizeInBytes(size)), text) << size;
   }
   Catalogue("fr", "msg.msg.kilobyte.abbreviation = \"%s Ko\"\n");
   ASSERT_TRUE(Msg_SetLocaleEx("fr", "app", dir_.Path().c_str()));
   EXPECT_EQ(Take(Msg_FormatSizeInBytes(1536)), "1.5 Ko");
   EXPECT_EQ(Take(Msg_ErrString(2)), "Error 2 [No such file or directory]");
}

TEST_F(MsgTest, ProgressFormatsAreChecked)
{
   Record();
   LogCapture log;
   EXPECT_EQ(Msg_Progress(40, false, "@&!*@*@(msg.p)Copying %d files", 3), 1);
   void *lazy = Msg_LazyProgressStart(false, "@&!*@*@(msg.p)Step %s", "one");
   EXPECT_TRUE(Msg_LazyProgress(lazy, false, 50, nullptr));
   Msg_LazyProgressEnd(lazy);
   EXPECT_EQ(seen_, (Seen{"Copying 3 files 40", "Step one 50"}));
   EXPECT_EQ(Msg_LazyProgressStart(false, "@&!*@*@(msg.p)Bad %y"), nullptr);
   EXPECT_NE(log.Text().find("Msg_LazyProgressStart error: "), std::string::npos) << log.Text();
   EXPECT_NE(log.Text().find("format <@&!*@*@(msg.p)Bad %y>\n"), std::string::npos);
}

}  // namespace
