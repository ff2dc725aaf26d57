#include <errno.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

#include "dynbuf.h"
#include "testSupport.h"

namespace {

/* A buffer holding `size` bytes of 'x' in exactly `size` allocated bytes. */
void FillExactly(DynBuf *b, size_t size)
{
   DynBuf_Init(b);
   ASSERT_TRUE(DynBuf_Enlarge(b, size));
   ASSERT_TRUE(DynBuf_Trim(b));
   std::string bytes(size, 'x');
   ASSERT_TRUE(DynBuf_Append(b, bytes.data(), size));
   ASSERT_EQ(DynBuf_GetAllocatedSize(b), size);
}

/* Far more than any allocator will hand out, but small enough not to overflow the size. */
constexpr size_t kImpossible = SIZE_MAX / 2;

}  // namespace

TEST(DynBuf, GrowthDoublesThenStepsBy256KiB)
{
   DynBuf b = {};
   ASSERT_TRUE(DynBuf_Append(&b, "a", 1));
   EXPECT_EQ(DynBuf_GetAllocatedSize(&b), 128u);
   std::string more(128, 'b');
   ASSERT_TRUE(DynBuf_Append(&b, more.data(), more.size()));
   EXPECT_EQ(DynBuf_GetAllocatedSize(&b), 256u);
   /* A minimum beyond the rule's step wins. */
   ASSERT_TRUE(DynBuf_Enlarge(&b, 10000));
   EXPECT_EQ(DynBuf_GetAllocatedSize(&b), 10000u);
   EXPECT_EQ(std::string(b.data, b.size), "a" + more);
   DynBuf_Destroy(&b);

   FillExactly(&b, 256 * 1024);
   ASSERT_TRUE(DynBuf_Append(&b, "y", 1));
   EXPECT_EQ(DynBuf_GetAllocatedSize(&b), 512u * 1024);
   DynBuf_Destroy(&b);

   FillExactly(&b, 512 * 1024);
   ASSERT_TRUE(DynBuf_Append(&b, "y", 1));
   EXPECT_EQ(DynBuf_GetAllocatedSize(&b), 768u * 1024);
   EXPECT_EQ(b.data[512 * 1024], 'y');
   DynBuf_Destroy(&b);
   EXPECT_EQ(b.data, nullptr);
   EXPECT_EQ(b.size + b.allocated, 0u);
}

TEST(DynBuf, FailureLeavesBufferIntact)
{
   DynBuf b;
   DynBuf_Init(&b);
   ASSERT_TRUE(DynBuf_Append(&b, "keep", 4));
   char *data = b.data;
   size_t allocated = b.allocated;

   EXPECT_FALSE(DynBuf_Enlarge(&b, kImpossible));
   EXPECT_FALSE(DynBuf_Insert(&b, 0, "z", kImpossible));
   /* The new size would wrap around (volatile: keeps the compiler from checking the copy). */
   volatile size_t wrapping = SIZE_MAX - 1;
   EXPECT_FALSE(DynBuf_Append(&b, "z", wrapping));
   EXPECT_EQ(b.data, data);
   EXPECT_EQ(b.allocated, allocated);
   EXPECT_EQ(std::string(b.data, b.size), "keep");
   DynBuf_Destroy(&b);
}

TEST(DynBuf, InsertMovesTailAndAppendStringKeepsNulOutOfSize)
{
   DynBuf b = {};
   ASSERT_TRUE(DynBuf_AppendString(&b, "held"));
   EXPECT_EQ(b.size, 4u);
   EXPECT_EQ(b.data[4], '\0');
   ASSERT_TRUE(DynBuf_Insert(&b, 0, "<", 1));
   ASSERT_TRUE(DynBuf_Insert(&b, 3, "-", 1));
   ASSERT_TRUE(DynBuf_Insert(&b, b.size, ">", 1));
   ASSERT_TRUE(DynBuf_Insert(&b, 2, nullptr, 0));
   EXPECT_EQ(std::string(b.data, b.size), "<he-ld>");
   DynBuf_SafeAppend(&b, "!", 1);
   DynBuf_SafeInsert(&b, 0, "^", 1);
   char *text = DynBuf_DetachString(&b);
   EXPECT_STREQ(text, "^<he-ld>!");
   EXPECT_EQ(b.data, nullptr);
   EXPECT_EQ(b.allocated, 0u);
   EXPECT_EQ(b.size, 9u); /* detaching leaves the size */
   free(text);
}

TEST(DynBuf, DetachStringGrowsOnlyWhenFull)
{
   DynBuf b = {};
   char *empty = DynBuf_DetachString(&b);
   EXPECT_STREQ(empty, "");
   free(empty);

   FillExactly(&b, 200);
   char *full = DynBuf_DetachString(&b);
   EXPECT_EQ(std::string(full), std::string(200, 'x'));
   free(full);
}

TEST(DynBuf, AttachTrimCopySetString)
{
   DynBuf b = {};
   ASSERT_TRUE(DynBuf_Append(&b, "old", 3));
   char *block = static_cast<char *>(malloc(5));
   memcpy(block, "fresh", 5);
   DynBuf_Attach(&b, 5, block); /* frees "old" */
   EXPECT_EQ(b.data, block);
   EXPECT_EQ(b.allocated, 5u);

   ASSERT_TRUE(DynBuf_Enlarge(&b, 0));
   EXPECT_EQ(b.allocated, 10u);
   DynBuf copy;
   ASSERT_TRUE(DynBuf_Copy(&b, &copy));
   EXPECT_NE(copy.data, b.data);
   EXPECT_EQ(copy.allocated, 10u);
   EXPECT_EQ(std::string(copy.data, copy.size), "fresh");
   ASSERT_TRUE(DynBuf_Trim(&copy));
   EXPECT_EQ(copy.allocated, 5u);
   DynBuf_Destroy(&copy);

   b.size = 0;
   ASSERT_TRUE(DynBuf_Trim(&b));
   EXPECT_EQ(b.allocated, 0u);
   EXPECT_EQ(b.data, nullptr);

   DynBuf view;
   DynBuf_SetString(&view, "borrowed");
   EXPECT_EQ(view.size, 8u);
   EXPECT_EQ(view.allocated, 9u);
   DynBuf_SetString(&view, nullptr);
   EXPECT_EQ(view.data, nullptr);
   EXPECT_EQ(view.size + view.allocated, 0u);
}

TEST(DynBufDeathTest, SafeFormsNameTheirCaller)
{
   DynBuf b = {};
   int line = __LINE__ + 1;
   EXPECT_PANIC(DynBuf_SafeEnlarge(&b, kImpossible),
                "Unrecoverable memory allocation failure at tests/foundation/dynbufTest:" +
                    std::to_string(line) + "\n");
   line = __LINE__ + 1;
   EXPECT_PANIC(DynBuf_SafeAppend(&b, "x", kImpossible),
                "Unrecoverable memory allocation failure at tests/foundation/dynbufTest:" +
                    std::to_string(line) + "\n");
   EXPECT_PANIC(DynBuf_SafeInsert(&b, 0, "x", SIZE_MAX),
                "Unrecoverable memory allocation failure at tests/foundation/dynbufTest:");
}

TEST(DynBufDeathTest, DetachStringPanicsWhenItCannotGrow)
{
   DynBuf b = {};
   b.size = SIZE_MAX;
   b.allocated = SIZE_MAX;
   EXPECT_PANIC(DynBuf_DetachString(&b), "MEM_ALLOC lib/public/dynbuf:");
}
