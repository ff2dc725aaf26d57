#include <gtest/gtest.h>

#include <plist/plist.h>

#include "propertyList.h"

namespace {

using codesign::PlistParse;
using codesign::PlistValue;
using namespace std::string_literals;

bool Parse(const std::string &bytes, PlistValue &out)
{
   return PlistParse((const uint8_t *)bytes.data(), bytes.size(), out);
}

/* A binary list from object bodies (marker and payload), one-byte offsets and references. */
std::string Binary(const std::vector<std::string> &objects, uint8_t top = 0)
{
   std::string out = "bplist00", table;
   for (const std::string &object : objects) {
      table += (char)out.size();
      out += object;
   }
   size_t tableOffset = out.size();
   out += table + std::string(6, '\0') + "\x01\x01" + std::string(7, '\0') + (char)objects.size() +
          std::string(7, '\0') + (char)top + std::string(7, '\0') + (char)tableOffset;
   return out;
}

TEST(PropertyList, ReadsTheFormsLibplistWritesAndWritesWhatItReads)
{
   plist_t root = plist_new_dict();
   plist_t array = plist_new_array();
   plist_array_append_item(array, plist_new_uint(7));
   plist_array_append_item(array, plist_new_bool(1));
   plist_array_append_item(array, plist_new_real(-2.5));
   plist_dict_set_item(root, "list", array);
   plist_dict_set_item(root, "name <&> \xC3\xA9\xF0\x9F\x98\x80", plist_new_string("a & b\n\t "));
   plist_dict_set_item(root, "blob", plist_new_data("\0\1\2\xff", 4));
   plist_dict_set_item(root, "when", plist_new_date(86400 * 366, 0));
   plist_dict_set_item(root, "empty", plist_new_dict());
   char *xml = nullptr, *bin = nullptr;
   uint32_t xmlLength = 0, binLength = 0;
   plist_to_xml(root, &xml, &xmlLength);
   plist_to_bin(root, &bin, &binLength);
   PlistValue fromXml, fromBinary, again;
   ASSERT_TRUE(Parse(std::string(xml, xmlLength), fromXml)) << xml;
   ASSERT_TRUE(Parse(std::string(bin, binLength), fromBinary));
   plist_to_xml_free(xml);
   plist_to_bin_free(bin);
   plist_free(root);

   EXPECT_EQ(fromXml, fromBinary);
   EXPECT_EQ(*fromXml.GetString("name <&> \xC3\xA9\xF0\x9F\x98\x80"), "a & b\n\t ");
   EXPECT_EQ(fromXml.Get("blob")->bytes, std::string("\0\1\2\xff", 4));
   EXPECT_EQ(fromXml.Get("when")->real, 86400.0 * 366);
   const PlistValue *list = fromXml.Get("list");
   ASSERT_EQ(list->items.size(), 3u);
   EXPECT_EQ(list->items[0].integer, 7u);
   EXPECT_EQ(list->items[2].real, -2.5);
   EXPECT_EQ(fromXml.GetString("list"), nullptr);

   ASSERT_TRUE(Parse(codesign::PlistToXml(fromXml), again));
   EXPECT_EQ(again, fromXml);
}

TEST(PropertyList, ReadsTheMarkupAroundValues)
{
   PlistValue value;
   ASSERT_TRUE(
       Parse("\xEF\xBB\xBF<?xml version=\"1.0\"?>\n<!-- c -->\n<!DOCTYPE plist PUBLIC "
             "\"-//x//y\" \"z.dtd\">\n<plist version='1.0'><dict >"
             "<key>a</key><string>x<!-- in text --><![CDATA[<&>]]>&#x41;&#66;&apos;</string>"
             "<key>n</key><integer>-9223372036854775808</integer>"
             "<key>t</key><true></true><key>e</key><string/>"
             "</dict ></plist>\n",
             value));
   EXPECT_EQ(*value.GetString("a"), "x<&>AB'");
   EXPECT_EQ(value.Get("n")->integer, (uint64_t)1 << 63);
   EXPECT_EQ(value.Get("t")->integer, 1u);
   EXPECT_EQ(*value.GetString("e"), "");
}

TEST(PropertyList, RefusesIllFormedAndHostileInput)
{
   auto wrap = [](const std::string &body) { return "<plist>" + body + "</plist>"; };
   std::string deep;
   for (int i = 0; i < 100; i++) {
      deep = "<array>" + deep + "</array>";
   }
   const std::string refused[] = {
       "",
       wrap(""),
       wrap("<string>a</string><string>b</string>"),
       wrap("<string>open"),
       wrap("<string>a</strong>"),
       wrap("<dict><key>a</key><true/><key>a</key><false/></dict>"),
       wrap("<dict><string>no key</string></dict>"),
       wrap("<string>\xC0\xAF</string>"),
       wrap("<string>&#0;</string>"),
       wrap("<string>&#xD800;</string>"),
       wrap("<string>&unknown;</string>"),
       wrap("<integer>18446744073709551616</integer>"),
       wrap("<integer>-9223372036854775809</integer>"),
       wrap("<integer>1.5</integer>"),
       wrap("<data>AAA</data>"),
       wrap("<data>A=AA</data>"),
       wrap("<date>2023-02-29T00:00:00Z</date>"),
       wrap("<true>x</true>"),
       wrap("<object/>"),
       wrap(deep),
       "<!DOCTYPE plist [<!ENTITY x \"y\">]>" + wrap("<string>&x;</string>"),
       wrap("<true/>") + "trailing",
       Binary({"\xA1\x00"s}),  // an array holding itself
       Binary({"\xA1\x05"}),   // a reference past the objects
       Binary({"\x5F\x10\x7F"
               "abc"}),                       // a length past the table
       Binary({"\xD1\x01\x01", "\x10\x01"}),  // a key that is not a string
       Binary({"\x00"s}),                     // null is not a value
       Binary({"\x61\xD8\x00"s}),             // an unpaired surrogate
       Binary({"\x08"}, 1),                   // a top object past the count
       Binary({"\x08"}).substr(0, 20),        // cut into the trailer
   };
   PlistValue good;  // the well-formed neighbours of the rows below
   ASSERT_TRUE(Parse(wrap("<array><true/></array>"), good));
   ASSERT_TRUE(Parse(Binary({"\xA1\x01", "\x09"}), good));
   EXPECT_EQ(good.items.at(0).integer, 1u);
   for (const std::string &input : refused) {
      PlistValue value;
      EXPECT_FALSE(Parse(input, value)) << testing::PrintToString(input);
   }
}

}  // namespace
