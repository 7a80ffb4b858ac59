// The record of a maintained file, and the catalogue of the files that hold generated blocks.
#pragma once
#include "function.h"

namespace registry_docs {

extern const FunctionDef kParamsRenderer;
extern const FunctionDef kGeneratedFiles;

// The statement of the record type, run by the module body (annotations stay texts).
inline constexpr char kGeneratedFileClass[] =
    "@dataclass(frozen=True)\n"
    "class GeneratedFile:\n"
    "    (\"A file of the repository that holds generated blocks.\\n\\nAttributes:\\n\"\n"
    "     \"    path: The file, relative to the repository's root.\\n\"\n"
    "     \"    blocks: The blocks it holds: each name with the function that renders \"\n"
    "     \"the block.\\n\"\n"
    "     \"    encode: How the file holds a rendered block (the skill's template doubles \"\n"
    "     \"braces).\\n\")\n"
    "    path: str\n"
    "    blocks: tuple[tuple[str, Callable[[], str]], ...]\n"
    "    encode: Callable[[str], str] = str\n";

}  // namespace registry_docs
