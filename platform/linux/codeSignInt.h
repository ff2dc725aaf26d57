/*
 * Internals of the code signatures shared by their modules: the requirement tree and its
 * evaluation.
 */
#ifndef BRIX_CODESIGN_INT_H
#define BRIX_CODESIGN_INT_H

#include <memory>
#include <string>
#include <vector>

#include "codeSign.h"

namespace codesign {

/* The facts a signature establishes, against which a requirement is evaluated. */
struct Facts {
   std::string identifier;
   std::string leafName;
   bool trusted = false;
};

enum class NodeKind { kOr, kAnd, kNot, kIdentifier, kAnchorGeneric, kAnchorTrusted, kLeafName };
enum class Match { kExact, kContains, kPrefix, kSuffix };

struct Node {
   NodeKind kind;
   std::vector<std::unique_ptr<Node>> children;  // kOr/kAnd: two or more; kNot: one
   std::string text;                             // kIdentifier, kLeafName
   Match match = Match::kExact;                  // kLeafName
};

/* The status of evaluating node: CODESIGN_OK, or the status of the clause that failed. */
CodeSignStatus Evaluate(const Node &node, const Facts &facts);

}  // namespace codesign

struct CodeSignRequirement {
   std::unique_ptr<codesign::Node> root;
};

#endif
