/*
 * The requirement language: identifier "X", anchor apple generic, anchor trusted and
 * cert leaf[subject.CN] = "x" (with * before or after the string for a contains, prefix or
 * suffix match), joined by !, and, or (binding in that order) and parentheses. Both anchor
 * clauses mean that the signer's chain reaches a compiled-in anchor: there is no other
 * vendor root on this platform.
 */
#include <stdlib.h>
#include <string.h>

#include <new>

#include "codeSignInt.h"

namespace codesign {
namespace {

enum class Tok { kEnd, kWord, kString, kLParen, kRParen, kLBracket, kRBracket, kNot, kEq, kStar };

struct Token {
   Tok kind;
   std::string text;
};

class Parser {
  public:
   explicit Parser(const char *text) : p_(text) {}

   std::unique_ptr<Node> Parse()
   {
      if (!Next()) {
         return nullptr;
      }
      std::unique_ptr<Node> node = ParseOr();
      return node && tok_.kind == Tok::kEnd ? std::move(node) : nullptr;
   }

  private:
   bool Next()
   {
      while (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r') {
         p_++;
      }
      tok_.text.clear();
      char c = *p_;
      if (c == '\0') {
         tok_.kind = Tok::kEnd;
         return true;
      }
      static const char kPunct[] = "()[]!=*";
      static const Tok kPunctTok[] = {Tok::kLParen, Tok::kRParen, Tok::kLBracket, Tok::kRBracket,
                                      Tok::kNot,    Tok::kEq,     Tok::kStar};
      if (const char *at = strchr(kPunct, c)) {
         tok_.kind = kPunctTok[at - kPunct];
         p_++;
         return true;
      }
      if (c == '"') {
         tok_.kind = Tok::kString;
         for (p_++; *p_ != '"'; p_++) {
            if (*p_ == '\0') {
               return false;
            }
            if (*p_ == '\\') {
               p_++;
               if (*p_ != '"' && *p_ != '\\') {
                  return false;
               }
            }
            tok_.text += *p_;
         }
         p_++;
         return true;
      }
      tok_.kind = Tok::kWord;
      while ((*p_ >= 'a' && *p_ <= 'z') || (*p_ >= 'A' && *p_ <= 'Z') || *p_ == '.') {
         tok_.text += *p_++;
      }
      return !tok_.text.empty();
   }

   bool Accept(Tok kind, const char *word = nullptr)
   {
      if (tok_.kind != kind || (word != nullptr && tok_.text != word)) {
         return false;
      }
      return Next();
   }

   /* Operands of the same operator are gathered into one node, parenthesised or not. */
   std::unique_ptr<Node> ParseList(NodeKind kind, const char *word,
                                   std::unique_ptr<Node> (Parser::*operand)())
   {
      std::unique_ptr<Node> first = (this->*operand)();
      if (!first || !(tok_.kind == Tok::kWord && tok_.text == word)) {
         return first;
      }
      auto list = std::make_unique<Node>(Node{kind, {}, {}, Match::kExact});
      auto add = [&](std::unique_ptr<Node> child) {
         if (child->kind == kind) {
            for (auto &grandChild : child->children) {
               list->children.push_back(std::move(grandChild));
            }
         } else {
            list->children.push_back(std::move(child));
         }
      };
      add(std::move(first));
      while (tok_.kind == Tok::kWord && tok_.text == word) {
         if (!Next()) {
            return nullptr;
         }
         std::unique_ptr<Node> next = (this->*operand)();
         if (!next) {
            return nullptr;
         }
         add(std::move(next));
      }
      return list;
   }

   std::unique_ptr<Node> ParseOr() { return ParseList(NodeKind::kOr, "or", &Parser::ParseAnd); }
   std::unique_ptr<Node> ParseAnd()
   {
      return ParseList(NodeKind::kAnd, "and", &Parser::ParseUnary);
   }

   std::unique_ptr<Node> ParseUnary()
   {
      if (++depth_ > kMaxDepth) {
         return nullptr;
      }
      std::unique_ptr<Node> node;
      if (tok_.kind == Tok::kNot) {
         if (Next()) {
            if (std::unique_ptr<Node> child = ParseUnary()) {
               node = std::make_unique<Node>(Node{NodeKind::kNot, {}, {}, Match::kExact});
               node->children.push_back(std::move(child));
            }
         }
      } else if (tok_.kind == Tok::kLParen) {
         if (Next()) {
            node = ParseOr();
            if (node && !Accept(Tok::kRParen)) {
               node.reset();
            }
         }
      } else {
         node = ParseClause();
      }
      depth_--;
      return node;
   }

   std::unique_ptr<Node> Leaf(NodeKind kind, std::string text = {}, Match match = Match::kExact)
   {
      return std::make_unique<Node>(Node{kind, {}, std::move(text), match});
   }

   std::unique_ptr<Node> ParseClause()
   {
      if (Accept(Tok::kWord, "identifier")) {
         Accept(Tok::kEq);
         std::string text = tok_.text;
         return tok_.kind == Tok::kString && Next() ? Leaf(NodeKind::kIdentifier, text) : nullptr;
      }
      if (Accept(Tok::kWord, "anchor")) {
         if (Accept(Tok::kWord, "trusted")) {
            return Leaf(NodeKind::kAnchorTrusted);
         }
         return Accept(Tok::kWord, "apple") && Accept(Tok::kWord, "generic")
                    ? Leaf(NodeKind::kAnchorGeneric)
                    : nullptr;
      }
      if (Accept(Tok::kWord, "cert") && Accept(Tok::kWord, "leaf") && Accept(Tok::kLBracket) &&
          Accept(Tok::kWord, "subject.CN") && Accept(Tok::kRBracket) && Accept(Tok::kEq)) {
         bool before = Accept(Tok::kStar);
         std::string text = tok_.text;
         if (tok_.kind != Tok::kString || !Next()) {
            return nullptr;
         }
         bool after = Accept(Tok::kStar);
         Match match = before ? (after ? Match::kContains : Match::kSuffix)
                              : (after ? Match::kPrefix : Match::kExact);
         return Leaf(NodeKind::kLeafName, text, match);
      }
      return nullptr;
   }

   static constexpr int kMaxDepth = 64;
   const char *p_;
   Token tok_;
   int depth_ = 0;
};

int Precedence(NodeKind kind)
{
   return kind == NodeKind::kOr ? 1 : kind == NodeKind::kAnd ? 2 : kind == NodeKind::kNot ? 3 : 4;
}

void Quote(std::string &out, const std::string &text)
{
   out += '"';
   for (char c : text) {
      if (c == '"' || c == '\\') {
         out += '\\';
      }
      out += c;
   }
   out += '"';
}

void Print(std::string &out, const Node &node, int parentPrecedence)
{
   bool parens = Precedence(node.kind) <= parentPrecedence && Precedence(node.kind) < 3;
   if (parens) {
      out += '(';
   }
   switch (node.kind) {
      case NodeKind::kOr:
      case NodeKind::kAnd:
         for (size_t i = 0; i < node.children.size(); i++) {
            if (i > 0) {
               out += node.kind == NodeKind::kOr ? " or " : " and ";
            }
            Print(out, *node.children[i], Precedence(node.kind));
         }
         break;
      case NodeKind::kNot:
         out += '!';
         Print(out, *node.children[0], 3);
         break;
      case NodeKind::kIdentifier:
         out += "identifier ";
         Quote(out, node.text);
         break;
      case NodeKind::kAnchorGeneric:
         out += "anchor apple generic";
         break;
      case NodeKind::kAnchorTrusted:
         out += "anchor trusted";
         break;
      case NodeKind::kLeafName:
         out += "cert leaf[subject.CN] = ";
         if (node.match == Match::kContains || node.match == Match::kSuffix) {
            out += '*';
         }
         Quote(out, node.text);
         if (node.match == Match::kContains || node.match == Match::kPrefix) {
            out += '*';
         }
         break;
   }
   if (parens) {
      out += ')';
   }
}

bool NameMatches(const Node &node, const std::string &name)
{
   const std::string &want = node.text;
   switch (node.match) {
      case Match::kExact:
         return name == want;
      case Match::kContains:
         return name.find(want) != std::string::npos;
      case Match::kPrefix:
         return name.compare(0, want.size(), want) == 0;
      case Match::kSuffix:
         return name.size() >= want.size() &&
                name.compare(name.size() - want.size(), want.size(), want) == 0;
   }
   return false;
}

}  // namespace

CodeSignStatus Evaluate(const Node &node, const Facts &facts)
{
   switch (node.kind) {
      case NodeKind::kAnd:
         for (const auto &child : node.children) {
            CodeSignStatus status = Evaluate(*child, facts);
            if (status != CODESIGN_OK) {
               return status;
            }
         }
         return CODESIGN_OK;
      case NodeKind::kOr:
         for (const auto &child : node.children) {
            if (Evaluate(*child, facts) == CODESIGN_OK) {
               return CODESIGN_OK;
            }
         }
         return node.children.size() == 1 ? Evaluate(*node.children[0], facts)
                                          : CODESIGN_REQUIREMENT;
      case NodeKind::kNot:
         return Evaluate(*node.children[0], facts) == CODESIGN_OK ? CODESIGN_REQUIREMENT
                                                                  : CODESIGN_OK;
      case NodeKind::kIdentifier:
         return facts.identifier == node.text ? CODESIGN_OK : CODESIGN_IDENTIFIER;
      case NodeKind::kAnchorGeneric:
      case NodeKind::kAnchorTrusted:
         return facts.trusted ? CODESIGN_OK : CODESIGN_UNTRUSTED;
      case NodeKind::kLeafName:
         return NameMatches(node, facts.leafName) ? CODESIGN_OK : CODESIGN_LEAF_NAME;
   }
   return CODESIGN_REQUIREMENT;
}

}  // namespace codesign

extern "C" {

CodeSignRequirement *CodeSign_ParseRequirement(const char *text)
{
   if (text == nullptr) {
      return nullptr;
   }
   try {
      std::unique_ptr<codesign::Node> root = codesign::Parser(text).Parse();
      if (!root) {
         return nullptr;
      }
      return new CodeSignRequirement{std::move(root)};
   } catch (const std::bad_alloc &) {
      return nullptr;
   }
}

void CodeSign_FreeRequirement(CodeSignRequirement *requirement)
{
   delete requirement;
}

char *CodeSign_RequirementText(const CodeSignRequirement *requirement)
{
   try {
      std::string out;
      codesign::Print(out, *requirement->root, 0);
      return strdup(out.c_str());
   } catch (const std::bad_alloc &) {
      return nullptr;
   }
}

}  // extern "C"
