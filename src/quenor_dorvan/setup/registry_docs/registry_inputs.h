// The host's names, imported into the module's namespace by the module body, in the host's order.
// Every later read of host data goes through that namespace at the moment it is made (`lookup`).
#pragma once
#include "function.h"

namespace registry_docs {

inline constexpr char kHostImports[] =
    "from quenor_dorvan.setup.config import QUENOR_INSTRUCTION_CONTENT, without_markers\n"
    "from quenor_dorvan.tool_registry import TOOLS, ParamSpec, ToolSpec, ToolTier\n"
    "from quenor_dorvan.tool_routes import rules_table, skill_table\n"
    "from quenor_dorvan.tool_schemas import get_cli_schema, snake_to_kebab\n"
    "from quenor_dorvan.workers.api_endpoints import ENDPOINT_FRAMEWORKS\n";

}  // namespace registry_docs
