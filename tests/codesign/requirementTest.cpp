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

// Printing what it printed gives the same text: checked by the requirement fuzz target.
TEST(Requirement, ParsesAndPrintsWithPrecedence)
{
   const std::pair<const char *, const char *> cases[] = {
       {"identifier = \"a b\"", "identifier \"a b\""},
       {"cert leaf[ subject.CN ]=\"x\"*", "cert leaf[subject.CN] = \"x\"*"},
       // ! binds tighter than and, and tighter than or
       {"!identifier \"a\" and anchor trusted or identifier \"b\"", nullptr},
       {"identifier \"a\" and (anchor trusted or identifier \"b\")", nullptr},
       {"!(identifier \"a\" or identifier \"b\")", nullptr},
       // nested groups of one operator flatten; redundant parentheses vanish
       {"((identifier \"a\")) and (anchor trusted and anchor apple generic)",
        "identifier \"a\" and anchor trusted and anchor apple generic"},
       {"identifier \"q\\\"uote\\\\\" and cert leaf[subject.CN] = *\"Tesmar, Inc.\"*", nullptr},
   };
   for (auto [text, canonical] : cases) {
      EXPECT_EQ(Canonical(text), canonical != nullptr ? canonical : text);
   }
}

TEST(Requirement, RefusesWhatIsNotInTheLanguage)
{
   std::string deep = std::string(200, '(') + "anchor trusted" + std::string(200, ')');
   for (const char *text :
        {"", "identifier a", "identifier \"a", "anchor apple", "anchor trusted and",
         "(anchor trusted", "anchor trusted)", "cert leaf[subject.O] = \"x\"",
         "cert leaf[subject.CN] = \"x\"**", "identifier \"a\" identifier \"b\"",
         "identifier \"\\n\"", "anchor trusted # comment", deep.c_str()}) {
      EXPECT_EQ(Canonical(text), "<refused>") << text;
   }
}

TEST(Requirement, EvaluatesAgainstTheFacts)
{
   codesign::Facts facts{"BRIX Services", "Developer ID Application: Tesmar, Inc. (X)", true};
   const std::pair<const char *, CodeSignStatus> cases[] = {
       {"identifier \"BRIX Services\" and anchor trusted", CODESIGN_OK},
       {"identifier \"brix services\"", CODESIGN_IDENTIFIER},
       {"cert leaf[subject.CN] = *\"Tesmar, Inc.\"*", CODESIGN_OK},
       {"cert leaf[subject.CN] = \"Tesmar, Inc.\"*", CODESIGN_LEAF_NAME},
       {"cert leaf[subject.CN] = *\"(X)\"", CODESIGN_OK},
       {"cert leaf[subject.CN] = \"Developer ID Application: Tesmar, Inc. (X)\"", CODESIGN_OK},
       {"identifier \"other\" or anchor trusted", CODESIGN_OK},
       {"!anchor trusted", CODESIGN_REQUIREMENT},
       {"identifier \"BRIX Services\" and anchor apple generic", CODESIGN_UNTRUSTED},
   };
   for (auto [text, want] : cases) {
      CodeSignRequirement *req = CodeSign_ParseRequirement(text);
      ASSERT_NE(req, nullptr) << text;
      facts.trusted = want != CODESIGN_UNTRUSTED;
      EXPECT_EQ(codesign::Evaluate(*req->root, facts), want) << text;
      CodeSign_FreeRequirement(req);
   }
}

}  // namespace
