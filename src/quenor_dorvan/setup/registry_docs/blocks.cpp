#include "blocks.h"
namespace registry_docs {
static Ref stub(const Env&, PyObject* const*) { PyErr_SetString(PyExc_NotImplementedError, "x"); return Ref(); }
const FunctionDef kSkillToolsBlock = {"kSkillToolsBlock", "doc", 0, {}, {}, "str", stub};
const FunctionDef kReadmeToolsBlock = {"kReadmeToolsBlock", "doc", 0, {}, {}, "str", stub};
const FunctionDef kMcpIntroBlock = {"kMcpIntroBlock", "doc", 0, {}, {}, "str", stub};
const FunctionDef kMcpOverviewBlock = {"kMcpOverviewBlock", "doc", 0, {}, {}, "str", stub};
const FunctionDef kMcpCliBlock = {"kMcpCliBlock", "doc", 0, {}, {}, "str", stub};
const FunctionDef kDefaultCell = {"kDefaultCell", "doc", 0, {}, {}, "str", stub};
const FunctionDef kTypeCell = {"kTypeCell", "doc", 0, {}, {}, "str", stub};
const FunctionDef kDescriptionCell = {"kDescriptionCell", "doc", 0, {}, {}, "str", stub};
const FunctionDef kMcpParamsBlock = {"kMcpParamsBlock", "doc", 0, {}, {}, "str", stub};
const FunctionDef kSkillText = {"kSkillText", "doc", 0, {}, {}, "str", stub};
const FunctionDef kLiteralText = {"kLiteralText", "doc", 0, {}, {}, "str", stub};
const FunctionDef kSkillRoutesBlock = {"kSkillRoutesBlock", "doc", 0, {}, {}, "str", stub};
const FunctionDef kRulesBlock = {"kRulesBlock", "doc", 0, {}, {}, "str", stub};
}
