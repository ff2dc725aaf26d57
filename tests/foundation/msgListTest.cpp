#include <stdarg.h>

#include "msgList.h"
#include "testSupport.h"

using testsupport::Take;

/* Formats the compiler cannot check: literal texts with percent signs, deliberate faults. */
static MsgList *CreateUnchecked(const char *idFmt, ...)
{
   va_list args;
   va_start(args, idFmt);
   MsgList *list = MsgList_VCreate(idFmt, args);
   va_end(args);
   return list;
}

TEST(MsgList, MessagesChainNewestFirstListsMoveAndCopyInOrderBadFormatsPanic)
{
   MsgList *list = nullptr;
   MsgList_Append(&list, "a");
   MsgList_Append(&list, "@&!*@*@(file.open)Cannot open %s: %d\n", "/x", 13);
   EXPECT_STREQ(MsgList_GetMsgID(list), "msg.literal");
   EXPECT_EQ(Take(MsgList_ToString(list)), "Cannot open /x: 13\na\n");

   testsupport::LogCapture log;
   MsgList_Log(list);
   EXPECT_EQ(log.Text(), "[file.open] Cannot open /x: 13\n[msg.literal] a\n");
   MsgList_Free(list);

   // A literal text is not a format: its percent signs stay.
   MsgList *literal = CreateUnchecked("100%s done");
   EXPECT_EQ(Take(MsgList_ToString(literal)), "100%s done\n");
   MsgList_Free(literal);

   EXPECT_TRUE(MsgList_GetMsgID(nullptr) == nullptr && MsgList_ToString(nullptr) == nullptr);

   // Lists move and copy in order.
   list = MsgList_Create("a");
   MsgList_Append(&list, "b\n");
   EXPECT_EQ(Take(MsgList_ToString(list)), "b\na\n");

   MsgList *other = MsgList_Create("@&!*@*@(x.one)one %s", "@&!*@*@(hidden.id)inner");
   MsgList_Append(&other, "@&!*@*@(x.two)two %.2f", 2.25);
   MsgList *copy = MsgList_Copy(other);
   MsgList_AppendList(&list, other);
   EXPECT_EQ(Take(MsgList_ToString(list)), "two 2.25\none inner\nb\na\n");
   EXPECT_STREQ(MsgList_GetMsgID(list), "msg.literal");
   EXPECT_EQ(Take(MsgList_ToString(copy)), "two 2.25\none inner\n");
   EXPECT_STREQ(MsgList_GetMsgID(copy), "x.one");

   MsgList_AppendList(nullptr, copy);  // freed
   MsgList_Free(list);

   // A format whose arguments cannot be captured is a programming error.
   EXPECT_PANIC(CreateUnchecked("@&!*@*@(bad.fmt)%2$d", 1, 2),
                "MsgList_VAppend error: MsgFmt_GetArgs: gap in arguments at position 1\n"
                "format <@&!*@*@(bad.fmt)%2$d>\n");
}
