#include <stdlib.h>
#include <string.h>

#include "dynbuf.h"
#include "testSupport.h"

using testsupport::Take;

/* Far more than any allocator will hand out, but small enough not to overflow the size. */
static constexpr size_t kImpossible = SIZE_MAX / 2;

/* A buffer holding `size` bytes of 'x' in exactly `size` allocated bytes. */
static void FillExactly(DynBuf *b, size_t size)
{
   DynBuf_Init(b);
   ASSERT_TRUE(DynBuf_Enlarge(b, size) && DynBuf_Trim(b));
   ASSERT_TRUE(DynBuf_Append(b, std::string(size, 'x').data(), size));
   ASSERT_EQ(DynBuf_GetAllocatedSize(b), size);
}

TEST(DynBuf, GrowthDoublesThenStepsBy256KiB)
{
   DynBuf b = {};
   ASSERT_TRUE(DynBuf_Append(&b, "a", 1));
   EXPECT_EQ(b.allocated, 128u);
   std::string more(128, 'b');
   ASSERT_TRUE(DynBuf_Append(&b, more.data(), more.size()));
   EXPECT_EQ(b.allocated, 256u);
   ASSERT_TRUE(DynBuf_Enlarge(&b, 10000));  // a minimum beyond the rule's step wins
   EXPECT_EQ(b.allocated, 10000u);
   EXPECT_EQ(std::string(b.data, b.size), "a" + more);
   DynBuf_Destroy(&b);
   EXPECT_TRUE(b.data == nullptr && b.size == 0 && b.allocated == 0);

   for (auto [full, grown] :
        {std::pair<size_t, size_t>{200, 400}, {256 << 10, 512 << 10}, {512 << 10, 768 << 10}}) {
      FillExactly(&b, full);
      ASSERT_TRUE(DynBuf_Append(&b, "y", 1));
      EXPECT_EQ(b.allocated, grown);
      EXPECT_EQ(b.data[full], 'y');
      DynBuf_Destroy(&b);
   }
}

TEST(DynBuf, FailureLeavesBufferIntact)
{
   DynBuf b = {};
   ASSERT_TRUE(DynBuf_Append(&b, "keep", 4));
   DynBuf before = b;
   EXPECT_FALSE(DynBuf_Enlarge(&b, kImpossible));
   EXPECT_FALSE(DynBuf_Insert(&b, 0, "z", kImpossible));
   volatile size_t wrapping = SIZE_MAX - 1;  // the new size would wrap around
   EXPECT_FALSE(DynBuf_Append(&b, "z", wrapping));
   EXPECT_TRUE(b.data == before.data && b.allocated == before.allocated);
   EXPECT_EQ(std::string(b.data, b.size), "keep");
   DynBuf_Destroy(&b);
}

TEST(DynBuf, InsertDetachAttachTrimCopySetString)
{
   DynBuf b = {};
   EXPECT_EQ(Take(DynBuf_DetachString(&b)), "");
   FillExactly(&b, 200);  // a full buffer grows for the NUL
   EXPECT_EQ(Take(DynBuf_DetachString(&b)), std::string(200, 'x'));
   DynBuf_Init(&b);  // detaching left the size behind

   ASSERT_TRUE(DynBuf_AppendString(&b, "held"));  // the NUL is kept out of the size
   EXPECT_EQ(b.size, 4u);
   EXPECT_EQ(b.data[4], '\0');
   for (auto [offset, text] : {std::pair<size_t, const char *>{0, "<"}, {3, "-"}, {6, ">"}}) {
      ASSERT_TRUE(DynBuf_Insert(&b, offset, text, 1));
   }
   ASSERT_TRUE(DynBuf_Insert(&b, 2, nullptr, 0));
   DynBuf_SafeAppend(&b, "!", 1);
   DynBuf_SafeInsert(&b, 0, "^", 1);
   EXPECT_EQ(Take(DynBuf_DetachString(&b)), "^<he-ld>!");
   EXPECT_TRUE(b.data == nullptr && b.allocated == 0 && b.size == 9);  // the size stays

   char *block = strdup("fresh");  // attached as 6 bytes; enlarging doubles that
   DynBuf_Attach(&b, 6, block);
   ASSERT_TRUE(b.data == block && DynBuf_Enlarge(&b, 0) && b.allocated == 12);
   DynBuf copy;
   ASSERT_TRUE(DynBuf_Copy(&b, &copy));
   EXPECT_TRUE(copy.data != b.data && copy.allocated == 12 && copy.size == 6);
   EXPECT_STREQ(copy.data, "fresh");
   ASSERT_TRUE(DynBuf_Trim(&copy) && copy.allocated == 6);
   DynBuf_Destroy(&copy);
   b.size = 0;
   ASSERT_TRUE(DynBuf_Trim(&b) && b.data == nullptr && b.allocated == 0);

   DynBuf_SetString(&b, "borrowed");
   EXPECT_TRUE(b.size == 8 && b.allocated == 9);
   DynBuf_SetString(&b, nullptr);
   EXPECT_TRUE(b.data == nullptr && b.size == 0 && b.allocated == 0);
}

TEST(DynBufDeathTest, SafeFormsAndDetachStringPanic)
{
   DynBuf b = {};
   const std::string atCaller =
       "Unrecoverable memory allocation failure at tests/foundation/dynbufTest:";
   int line = __LINE__ + 1;
   EXPECT_PANIC(DynBuf_SafeEnlarge(&b, kImpossible), atCaller + std::to_string(line) + "\n");
   line = __LINE__ + 1;
   EXPECT_PANIC(DynBuf_SafeAppend(&b, "x", kImpossible), atCaller + std::to_string(line) + "\n");
   EXPECT_PANIC(DynBuf_SafeInsert(&b, 0, "x", SIZE_MAX), atCaller);
   b.size = SIZE_MAX;
   b.allocated = SIZE_MAX;
   EXPECT_PANIC(DynBuf_DetachString(&b), "MEM_ALLOC lib/public/dynbuf:");
}
