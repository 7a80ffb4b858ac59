// The marker scanner against the naive reference, on each input in the three widths a str stores:
// bytes, then 2 and 4 bytes with each byte from 0x80 a unit above Latin-1 (above the BMP) whose low
// bits spell ASCII again, where a scanner that drops high bits would find markers.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "markers.h"
#include "markers_reference.h"

namespace {

using registry_docs::MarkedBlock;

// `\w` for the test: ASCII letters, digits and '_', and every third code unit above ASCII, as `\w`
// takes in letters of other scripts.
bool is_word(std::uint32_t c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         (c >= 0x80 && c % 3 == 0);
}

void show(const char* what, const std::vector<MarkedBlock>& blocks) {
  std::fprintf(stderr, "%s:", what);
  for (const MarkedBlock& b : blocks) {
    std::fprintf(stderr, " [%td %td-%td %td %td %td]", b.open_start, b.name_start, b.name_end,
                 b.body_start, b.close_start, b.close_end);
  }
  std::fprintf(stderr, "\n");
}

template <typename Char>
void check(const Char* text, std::size_t size) {
  const auto length = static_cast<std::ptrdiff_t>(size);
  std::vector<MarkedBlock> found;
  registry_docs::scan_markers(text, length, is_word, found);
  std::vector<MarkedBlock> expected = registry_docs::reference::scan_markers(text, length, is_word);
  if (found == expected) return;
  std::fprintf(stderr, "the scanner and the reference differ on %zu-byte code units\n",
               sizeof(Char));
  show("scanner", found);
  show("reference", expected);
  std::abort();
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
