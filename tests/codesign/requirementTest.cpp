#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>

#include "codeSignInt.h"

namespace {

std::string Canonical(const char *text)
{
   CodeSignRequirement *req = CodeSign_ParseRequirement(text);
   if (req == nullptr) {
      return "<refused>";
   }
   char *printed = CodeSign_RequirementText(req);
   std::string out = printed;
   free(printed);
   CodeSign_FreeRequirement(req);
   return out;
}

TEST(Requirement, ParsesAndPrintsWithPrecedence)
{
   const struct {
      const char *text;
      const char *canonical;  // "": printed as given
   } cases[] = {
       {"identifier \"a\"", ""},
       {"identifier = \"a b\"", "identifier \"a b\""},
       {"anchor apple generic and anchor trusted", ""},
       {"cert leaf[subject.CN] = *\"Tesmar, Inc.\"*", ""},
       {"cert leaf[subject.CN]=\"x\"*", "cert leaf[subject.CN] = \"x\"*"},
       {"cert leaf[ subject.CN ] = *\"x\"", "cert leaf[subject.CN] = *\"x\""},
       // ! binds tighter than and, and tighter than or
       {"!identifier \"a\" and anchor trusted or identifier \"b\"", ""},
       {"identifier \"a\" and (anchor trusted or identifier \"b\")", ""},
       {"!(identifier \"a\" or identifier \"b\")", ""},
       // nested groups of one operator flatten; redundant parentheses vanish
       {"((identifier \"a\")) and (anchor trusted and anchor apple generic)",
        "identifier \"a\" and anchor trusted and anchor apple generic"},
       {"identifier \"q\\\"uote\\\\\"", ""},
       {"!!anchor trusted", ""},
   };
   for (const auto &c : cases) {
      std::string canonical = *c.canonical != '\0' ? c.canonical : c.text;
      EXPECT_EQ(Canonical(c.text), canonical) << c.text;
      EXPECT_EQ(Canonical(canonical.c_str()), canonical) << c.text;
   }
}

TEST(Requirement, RefusesWhatIsNotInTheLanguage)
{
   const char *bad[] = {
       "",
       "identifier",
       "identifier a",
       "identifier \"a",
       "anchor apple",
       "anchor trusted and",
       "or anchor trusted",
       "(anchor trusted",
       "anchor trusted)",
       "cert leaf[subject.O] = \"x\"",
       "cert leaf[subject.CN] = \"x\"**",
       "cert leaf[subject.CN] \"x\"",
       "identifier \"a\" identifier \"b\"",
       "identifier \"\\n\"",
       "anchor trusted # comment",
   };
   for (const char *text : bad) {
      EXPECT_EQ(Canonical(text), "<refused>") << text;
   }
   std::string deep(200, '(');
   deep += "anchor trusted" + std::string(200, ')');
   EXPECT_EQ(Canonical(deep.c_str()), "<refused>");
}

TEST(Requirement, EvaluatesAgainstTheFacts)
{
   codesign::Facts facts{"BRIX Services", "Developer ID Application: Tesmar, Inc. (X)", true};
   const struct {
      const char *text;
      CodeSignStatus want;
   } cases[] = {
       {"identifier \"BRIX Services\" and anchor trusted", CODESIGN_OK},
       {"identifier \"brix services\"", CODESIGN_IDENTIFIER},
       {"cert leaf[subject.CN] = *\"Tesmar, Inc.\"*", CODESIGN_OK},
       {"cert leaf[subject.CN] = \"Tesmar, Inc.\"*", CODESIGN_LEAF_NAME},
       {"cert leaf[subject.CN] = \"Developer ID\"*", CODESIGN_OK},
       {"cert leaf[subject.CN] = *\"(X)\"", CODESIGN_OK},
       {"cert leaf[subject.CN] = \"Developer ID Application: Tesmar, Inc. (X)\"", CODESIGN_OK},
       {"identifier \"other\" or anchor trusted", CODESIGN_OK},
       {"!anchor trusted", CODESIGN_REQUIREMENT},
       {"identifier \"a\" or identifier \"b\"", CODESIGN_REQUIREMENT},
   };
   for (const auto &c : cases) {
      CodeSignRequirement *req = CodeSign_ParseRequirement(c.text);
      ASSERT_NE(req, nullptr) << c.text;
      EXPECT_EQ(codesign::Evaluate(*req->root, facts), c.want) << c.text;
      CodeSign_FreeRequirement(req);
   }
   facts.trusted = false;
   CodeSignRequirement *req =
       CodeSign_ParseRequirement("identifier \"BRIX Services\" and anchor apple generic");
   EXPECT_EQ(codesign::Evaluate(*req->root, facts), CODESIGN_UNTRUSTED);
   CodeSign_FreeRequirement(req);
}

}  // namespace
