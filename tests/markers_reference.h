// The search of the module's `_MARKER` pattern as the regex engine runs it, backtracking: at each
// position every name length, longest first, then every body length, shortest first.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "markers.h"

namespace registry_docs::reference {

template <typename Char>
bool spells(const Char* text, std::ptrdiff_t size, std::ptrdiff_t pos, const char* word) {
  for (; *word; ++word, ++pos) {
    if (pos >= size || text[pos] != static_cast<unsigned char>(*word)) return false;
  }
  return true;
}

// The blocks of `text` in order, with `is_word(c)` as the `\w` of the pattern.
template <typename Char, typename IsWord>
std::vector<MarkedBlock> scan_markers(const Char* text, std::ptrdiff_t size, IsWord is_word) {
  auto name_char = [&](std::uint32_t c) { return c == ':' || c == '-' || is_word(c); };
  std::vector<MarkedBlock> found;
  std::ptrdiff_t pos = 0;
  while (pos < size) {
    bool matched = false;
    if (spells(text, size, pos, "<!-- registry:")) {
      const std::ptrdiff_t start = pos + 14;
      std::ptrdiff_t run = start;
      while (run < size && name_char(text[run])) ++run;
      for (std::ptrdiff_t end = run; end > start && !matched; --end) {
        if (!spells(text, size, end, " -->\n")) continue;
        const std::ptrdiff_t length = end - start;
        for (std::ptrdiff_t close = end + 5; close < size && !matched; ++close) {
          const std::ptrdiff_t name = close + 15;
          if (!spells(text, size, close, "<!-- /registry:") || name + length > size) continue;
          bool same_name = true;
          for (std::ptrdiff_t i = 0; i < length && same_name; ++i) {
            same_name = text[start + i] == text[name + i];
          }
          if (!same_name || !spells(text, size, name + length, " -->")) continue;
          found.push_back({pos, start, end, end + 5, close, name + length + 4});
          pos = name + length + 4;
          matched = true;
        }
      }
    }
    if (!matched) ++pos;
  }
  return found;
}

}  // namespace registry_docs::reference
