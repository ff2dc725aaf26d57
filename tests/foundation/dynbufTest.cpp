#include <string.h>

#include "dynbuf.h"
#include "testSupport.h"

using testsupport::Take;

/* Far more than any allocator will hand out, but small enough not to overflow the size. */
static constexpr size_t kImpossible = SIZE_MAX / 2;

TEST(DynBuf, EditsFailuresThatLeaveTheBufferIntactAndPanicsOfTheSafeForms)
{
   DynBuf b = {};
   EXPECT_EQ(Take(DynBuf_DetachString(&b)), "");
   ASSERT_TRUE(DynBuf_AppendString(&b, "held"));  // the NUL is kept out of the size
   EXPECT_TRUE(b.size == 4 && b.data[4] == '\0');
   for (auto [offset, text] : {std::pair<size_t, const char *>{0, "<"}, {3, "-"}, {6, ">"}}) {
      ASSERT_TRUE(DynBuf_Insert(&b, offset, text, 1));
   }
   ASSERT_TRUE(DynBuf_Insert(&b, 2, nullptr, 0));
   DynBuf_SafeAppend(&b, "!", 1);
   DynBuf_SafeInsert(&b, 0, "^", 1);
   ASSERT_TRUE(DynBuf_Trim(&b) && b.allocated == b.size);  // a full buffer grows for the NUL
   EXPECT_EQ(Take(DynBuf_DetachString(&b)), "^<he-ld>!");
   EXPECT_TRUE(b.data == nullptr && b.allocated == 0 && b.size == 9);  // the size stays

   DynBuf_Attach(&b, 6, strdup("fresh"));
   DynBuf copy;
   ASSERT_TRUE(DynBuf_Copy(&b, &copy) && copy.data != b.data && copy.size == 6);
   EXPECT_STREQ(copy.data, "fresh");
   DynBuf_Destroy(&copy);
   b.size = 0;
   ASSERT_TRUE(DynBuf_Trim(&b) && b.data == nullptr && b.allocated == 0);
   DynBuf_SetString(&b, "borrowed");
   EXPECT_TRUE(b.size == 8 && b.allocated == 9);  // the string is taken over
   DynBuf_SetString(&b, nullptr);
   EXPECT_TRUE(b.data == nullptr && b.size == 0 && b.allocated == 0);
   ASSERT_TRUE(DynBuf_Append(&b, "keep", 4));
   DynBuf before = b;
   volatile size_t wrapping = SIZE_MAX - 1;  // the new size would wrap around
   EXPECT_FALSE(DynBuf_Enlarge(&b, kImpossible) || DynBuf_Insert(&b, 0, "z", kImpossible) ||
                DynBuf_Append(&b, "z", wrapping));
   EXPECT_TRUE(b.data == before.data && b.allocated == before.allocated &&
               std::string(b.data, b.size) == "keep");
   DynBuf_Destroy(&b);

   // The safe forms and a string detach that cannot add its NUL panic instead.
   const std::string at = "Unrecoverable memory allocation failure at tests/foundation/dynbufTest:";
   int line = __LINE__ + 1;
   EXPECT_PANIC(DynBuf_SafeEnlarge(&b, kImpossible), at + std::to_string(line) + "\n");
   EXPECT_PANIC(DynBuf_SafeAppend(&b, "x", kImpossible), at);
   EXPECT_PANIC(DynBuf_SafeInsert(&b, 0, "x", SIZE_MAX), at);
   b = {nullptr, SIZE_MAX, SIZE_MAX};
   EXPECT_PANIC(DynBuf_DetachString(&b), "MEM_ALLOC lib/public/dynbuf:");
}
