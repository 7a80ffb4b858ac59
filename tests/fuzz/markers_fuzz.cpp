// The marker scanner against a naive reference, on each input in the three widths a str stores:
// bytes, then 2 and 4 bytes with each byte from 0x80 a unit above Latin-1 (above the BMP) whose low
// bits spell ASCII again, where a scanner that drops high bits would find markers. A finding is
// left in the findings directory; run the target on it to see it again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "markers.h"

namespace {

using registry_docs::MarkedBlock;

// `\w` for the test: ASCII letters, digits and '_', and every third code unit above ASCII, as `\w`
// takes in letters of other scripts.
bool is_word(std::uint32_t c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         (c >= 0x80 && c % 3 == 0);
}

template <typename Char>
bool spells(const Char* text, std::ptrdiff_t size, std::ptrdiff_t pos, const char* word) {
  for (; *word; ++word, ++pos) {
    if (pos >= size || text[pos] != static_cast<unsigned char>(*word)) return false;
  }
  return true;
}

// The search of the module's `_MARKER` pattern as the regex engine runs it, backtracking: at each
// position every name length, longest first, then every body length, shortest first.
template <typename Char>
std::vector<MarkedBlock> reference_scan(const Char* text, std::ptrdiff_t size) {
  auto name_char = [](std::uint32_t c) { return c == ':' || c == '-' || is_word(c); };
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

template <typename Char>
void check(const Char* text, std::size_t size) {
  const auto length = static_cast<std::ptrdiff_t>(size);
  std::vector<MarkedBlock> found;
  registry_docs::scan_markers(text, length, is_word, found);
  if (found != reference_scan(text, length)) std::abort();
}

template <typename Char>
std::vector<Char> widened(const std::uint8_t* data, std::size_t size, std::uint32_t high) {
  std::vector<Char> text(size);
  for (std::size_t i = 0; i < size; ++i) {
    text[i] = static_cast<Char>(data[i] < 0x80 ? data[i] : high + (data[i] & 0x7Fu));
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  check(data, size);
  std::vector<std::uint16_t> two = widened<std::uint16_t>(data, size, 0x100);
  check(two.data(), size);
  std::vector<std::uint32_t> four = widened<std::uint32_t>(data, size, 0x10000);
  check(four.data(), size);
  return 0;
}
