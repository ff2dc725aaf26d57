#include <stdlib.h>

#include "productState.h"
#include "productState/productStateInt.h"
#include "testSupport.h"

using testsupport::Take;

static std::string Dotted(ProductVersionNumber n)
{
   return std::to_string(n.major) + "." + std::to_string(n.minor) + "." + std::to_string(n.patch);
}

static constexpr uint32_t kAll = 0x01 | 0x02 | 0x04 | 0x08 | 0x10 | 0x80;

TEST(ProductState, DefaultsOverridesOnceAndDerivedValues)
{
   ProductState defaults;
   EXPECT_STREQ(defaults.Name(), "Larkview");
   EXPECT_STREQ(defaults.FullVersion(),
                (std::string(kProductStateBuiltInVersion) + " build-00000").c_str());
   EXPECT_STREQ(defaults.RegistryPath(), "SOFTWARE\\Tesmar, Inc.\\Larkview");
   EXPECT_EQ(Take(defaults.Serialize(0x01)), "product=1;");
   /* An experimental version reads as the built-in numbers. */
   ProductState experimental;
   experimental.SetVersion("e.x.p");
   EXPECT_EQ(Dotted(defaults.VersionNumber()), kProductStateBuiltInVersion);
   EXPECT_EQ(Dotted(experimental.VersionNumber()), kProductStateBuiltInVersion);

   ProductState state;
   EXPECT_TRUE(state.SetBuildNumber(1234));
   EXPECT_FALSE(state.SetBuildNumber(99));
   EXPECT_TRUE(state.SetVersion("2.5.17"));
   EXPECT_FALSE(state.SetVersion("3.0.0"));
   EXPECT_FALSE(state.SetName(nullptr));
   EXPECT_STREQ(state.FullVersion(), "2.5.17 build-1234");
   EXPECT_EQ(Dotted(state.VersionNumber()), "2.5.17");
   /* Derived values are computed once; a later override does not change them. */
   EXPECT_STREQ(state.RegistryPath(), "SOFTWARE\\Tesmar, Inc.\\Larkview");
   EXPECT_TRUE(state.SetName("Other"));
   EXPECT_STREQ(state.RegistryPath(), "SOFTWARE\\Tesmar, Inc.\\Larkview");
   EXPECT_STREQ(state.Name(), "Other");
   /* A stored product code 0 serialises as the default. */
   EXPECT_TRUE(state.SetProduct(0));
   EXPECT_EQ(Take(state.Serialize(0x01)), "product=1;");
}

TEST(ProductState, SerialisationEscapesAndRoundTrips)
{
   ProductState state;
   state.SetProduct(7);
   state.SetName("A;B#C");
   state.SetVersion("1.2.3");
   state.SetBuildNumber(42);
   state.SetCapabilities(18446744073709551615ULL);
   state.SetBundleIdentifier("com.example.x");
   std::string text = Take(state.Serialize(kAll));
   EXPECT_EQ(text,
             "product=7;name=A#3BB#23C;version=1.2.3;buildnumber=42;"
             "capabilities=18446744073709551615;bundleidentifier=com.example.x;");
   EXPECT_EQ(Take(state.Serialize(0x02 | 0x10)),
             "name=A#3BB#23C;capabilities=18446744073709551615;");
   EXPECT_EQ(Take(state.Serialize(0x20 | 0x40)), "");

   ProductState copy;
   EXPECT_TRUE(copy.Deserialize(text.c_str()));
   EXPECT_EQ(Take(copy.Serialize(kAll)), text);
   EXPECT_STREQ(copy.Name(), "A;B#C");
}

TEST(ProductState, ReaderIsOrderIndependentSkipsUnknownKeysAndRefusesMalformedPieces)
{
   ProductState state;
   EXPECT_TRUE(
       state.Deserialize("future=x;bundleidentifier=id;buildnumber=5;=;name=N#3b;product=3;"));
   EXPECT_EQ(Take(state.Serialize(0x01 | 0x02 | 0x08 | 0x80)),
             "product=3;name=N#3B;buildnumber=5;bundleidentifier=id;");
   EXPECT_TRUE(state.Deserialize(""));

   /* Each bad piece is refused; the good ones still apply. */
   ProductState bad;
   EXPECT_FALSE(
       bad.Deserialize("product=12x;buildnumber=-1;capabilities=18446744073709551616;"
                       "nameonly;name=Good;version=bad#4;bundleidentifier=nul#00x;"
                       "product=4294967295;"));
   EXPECT_EQ(Take(bad.Serialize(kAll)),
             "product=4294967295;name=Good;version=" + std::string(kProductStateBuiltInVersion) +
                 ";buildnumber=0;capabilities=0;bundleidentifier=;");

   /* A repeated key is a second override, refused; an unterminated tail is refused. */
   ProductState again;
   EXPECT_FALSE(again.Deserialize("buildnumber=1;buildnumber=2;"));
   EXPECT_EQ(again.BuildNumber(), 1u);
   ProductState tail;
   EXPECT_FALSE(tail.Deserialize("capabilities=8;name=cut"));
   EXPECT_EQ(tail.Capabilities(), 8u);
   EXPECT_STREQ(tail.Name(), "Larkview");
   EXPECT_FALSE(tail.Deserialize(nullptr));
}

TEST(ProductState, ConcurrentFirstUseAgreesOnOneValue)
{
   ProductState state;
   state.SetBuildNumber(77);
   const char *seen[6];
   testsupport::RunThreads(6, [&](int i) { seen[i] = state.FullVersion(); });
   for (const char *s : seen) {
      EXPECT_EQ(s, seen[0]);
   }
}

TEST(ProductState, ProcessWideEntries)
{
   EXPECT_TRUE(ProductState_SetBuildNumber(1234));
   EXPECT_STREQ(ProductState_GetBuildNumberString(), "build-1234");
   EXPECT_EQ(Take(ProductState_Serialize(0x08)), "buildnumber=1234;");
   EXPECT_TRUE(ProductState_Deserialize("bundleidentifier=b;"));
   EXPECT_STREQ(ProductState_GetBundleIdentifier(), "b");
   unsigned int major = 99;
   ProductState_GetVersionNumber(&major, nullptr, nullptr); /* the other outputs are optional */
   EXPECT_EQ(major, strtoul(ProductState_GetVersion(), nullptr, 10));
}
