/*
 * User messages from several threads: appends, lookups and catalogue switches at once.
 */
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>

#include "log.h"
#include "msg.h"
#include "testSupport.h"

namespace {

TEST(MsgThread, AppendsLookupsAndCatalogueSwitches)
{
   testsupport::ScratchDir dir;
   for (std::string locale : {"fr", "de"}) {
      std::filesystem::create_directories(dir / ("messages/" + locale));
      std::ofstream(dir / ("messages/" + locale + "/app.tmsg")) << "msg.t = \"" << locale << "\"\n";
   }
   Log_SetOutputFd(-1);
   Msg_Reset(false);
   constexpr int kThreads = 4, kRounds = 500;
   std::atomic<bool> bad{false};
   testsupport::RunThreads(kThreads + 1, [&](int t) {
      if (t == kThreads) {  // one thread switches the locale under the others
         for (int i = 0; i < 50; i++) {
            Msg_SetLocaleEx(i % 2 == 0 ? "fr" : "de", "app", dir.Path().c_str());
         }
         return;
      }
      for (int i = 0; i < kRounds; i++) {
         Msg_Append("@&!*@*@(msg.n)Thread %d round %d\n", t, i);
         std::string text = testsupport::Take(Msg_GetString("@&!*@*@(msg.t)en"));
         bad = bad || (text != "fr" && text != "de" && text != "en");
      }
   });
   EXPECT_FALSE(bad);
   int count = 0;
   MsgList *messages = Msg_TakeList();
   for (MsgList *m = messages; m != nullptr; m = m->next) {
      count++;
   }
   MsgList_Free(messages);
   EXPECT_EQ(count, kThreads * kRounds);
   Msg_SetLocaleEx(nullptr, "app", nullptr);
   Log_SetOutputFd(1);
}

}  // namespace
