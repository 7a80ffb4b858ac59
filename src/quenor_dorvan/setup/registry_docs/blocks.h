// Block renderers: one function per kind of generated block, and the two encoders for blocks held
// in Python string literals.
#pragma once
#include "function.h"

namespace registry_docs {

extern const FunctionDef kSkillToolsBlock;
extern const FunctionDef kReadmeToolsBlock;
extern const FunctionDef kMcpIntroBlock;
extern const FunctionDef kMcpOverviewBlock;
extern const FunctionDef kMcpCliBlock;
extern const FunctionDef kDefaultCell;
extern const FunctionDef kTypeCell;
extern const FunctionDef kDescriptionCell;
extern const FunctionDef kMcpParamsBlock;
extern const FunctionDef kSkillText;
extern const FunctionDef kLiteralText;
extern const FunctionDef kSkillRoutesBlock;
extern const FunctionDef kRulesBlock;

}  // namespace registry_docs
