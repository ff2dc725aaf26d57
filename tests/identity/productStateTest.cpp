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
   EXPECT_STREQ(defaults.FullVersion(),
                (std::string(kProductStateBuiltInVersion) + " build-00000").c_str());
   EXPECT_STREQ(defaults.RegistryPath(), "SOFTWARE\\Tesmar, Inc.\\Larkview");
   EXPECT_EQ(Take(defaults.Serialize(0x01)), "product=1;");
   // An experimental version reads as the built-in numbers.
   ProductState experimental;
   EXPECT_TRUE(experimental.SetVersion("e.x.p"));
   EXPECT_EQ(Dotted(experimental.VersionNumber()), kProductStateBuiltInVersion);

   ProductState state;
   EXPECT_TRUE(state.SetBuildNumber(1234) && state.SetVersion("2.5.17"));
   EXPECT_FALSE(state.SetBuildNumber(99) || state.SetVersion("3.0.0") || state.SetName(nullptr));
   EXPECT_STREQ(state.FullVersion(), "2.5.17 build-1234");
   EXPECT_EQ(Dotted(state.VersionNumber()), "2.5.17");
   // Derived values are computed once; a later override does not change them.
   EXPECT_STREQ(state.RegistryPath(), "SOFTWARE\\Tesmar, Inc.\\Larkview");
   EXPECT_TRUE(state.SetName("Other"));
   EXPECT_STREQ(state.RegistryPath(), "SOFTWARE\\Tesmar, Inc.\\Larkview");
   // A stored product code 0 serialises as the default.
   EXPECT_TRUE(state.SetProduct(0));
   EXPECT_EQ(Take(state.Serialize(0x01)), "product=1;");
}

TEST(ProductState, SerialisationEscapesAndRoundTrips)
{
   ProductState state;
   EXPECT_TRUE(state.SetProduct(7) && state.SetName("A;B#C") && state.SetVersion("1.2.3") &&
               state.SetBuildNumber(42) && state.SetCapabilities(18446744073709551615ULL) &&
               state.SetBundleIdentifier("com.example.x"));
   std::string text = Take(state.Serialize(kAll));
   EXPECT_EQ(text,
             "product=7;name=A#3BB#23C;version=1.2.3;buildnumber=42;"
             "capabilities=18446744073709551615;bundleidentifier=com.example.x;");
   EXPECT_EQ(Take(state.Serialize(0x02 | 0x10)),
             "name=A#3BB#23C;capabilities=18446744073709551615;");
   EXPECT_EQ(Take(state.Serialize(0x20 | 0x40)), "");
   ProductState copy;
   EXPECT_TRUE(copy.Deserialize(text.c_str()));
   EXPECT_STREQ(copy.Name(), "A;B#C");
}

TEST(ProductState, ReaderIsOrderIndependentSkipsUnknownKeysAndRefusesMalformedPieces)
{
   ProductState state;
   EXPECT_TRUE(
       state.Deserialize("future=x;bundleidentifier=id;buildnumber=5;=;name=N#3b;product=3;"));
   EXPECT_EQ(Take(state.Serialize(0x01 | 0x02 | 0x08 | 0x80)),
             "product=3;name=N#3B;buildnumber=5;bundleidentifier=id;");
   // Each bad piece is refused; the good ones still apply.
   ProductState bad;
   EXPECT_FALSE(
       bad.Deserialize("product=12x;buildnumber=-1;capabilities=18446744073709551616;"
                       "nameonly;name=Good;version=bad#4;bundleidentifier=nul#00x;"
                       "product=4294967295;"));
   EXPECT_EQ(Take(bad.Serialize(kAll)),
             "product=4294967295;name=Good;version=" + std::string(kProductStateBuiltInVersion) +
                 ";buildnumber=0;capabilities=0;bundleidentifier=;");

   // A repeated key is a second override, refused; an unterminated tail is refused.
   ProductState again, tail;
   EXPECT_TRUE(!again.Deserialize("buildnumber=1;buildnumber=2;") && again.BuildNumber() == 1);
   EXPECT_TRUE(!tail.Deserialize("capabilities=8;name=cut") && tail.Capabilities() == 8);
   EXPECT_STREQ(tail.Name(), "Larkview");
   EXPECT_FALSE(tail.Deserialize(nullptr));
}

TEST(ProductState, ConcurrentFirstUseAgreesOnOneValue)
{
   ProductState state;
   state.SetBuildNumber(77);
   const char *seen[6];
   testsupport::RunThreads(6, [&](int i) { seen[i] = state.FullVersion(); });
   EXPECT_EQ(std::vector<const char *>(seen, seen + 6), std::vector<const char *>(6, seen[0]));
}
