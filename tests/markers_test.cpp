// The block-marker scanner on its own: worked cases in each storage width. Random texts are
// compared with the pattern by the differential suite and with the backtracking search by the fuzz
// target.
#include "markers.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace registry_docs {
namespace {

bool ascii_word(std::uint32_t c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

using Found = std::vector<std::pair<std::string, std::string>>;  // name, body

Found describe(const std::string& text, const std::vector<MarkedBlock>& blocks) {
  Found found;
  for (const MarkedBlock& block : blocks) {
    std::string name = text.substr(block.name_start, block.name_end - block.name_start);
    std::string body = text.substr(block.body_start, block.close_start - block.body_start);
    // The pieces must be exactly the markers around the name and body.
    EXPECT_EQ(text.substr(block.open_start, block.body_start - block.open_start),
              "<!-- registry:" + name + " -->\n");
    EXPECT_EQ(text.substr(block.close_start, block.close_end - block.close_start),
              "<!-- /registry:" + name + " -->");
    found.emplace_back(std::move(name), std::move(body));
  }
  return found;
}

Found scan(const std::string& text) {
  std::vector<MarkedBlock> blocks;
  scan_markers(reinterpret_cast<const std::uint8_t*>(text.data()),
               static_cast<std::ptrdiff_t>(text.size()), ascii_word, blocks);
  return describe(text, blocks);
}

TEST(MarkerScanner, WorkedCases) {
  const std::string a_open = "<!-- registry:a -->\n";
  const std::string a_close = "<!-- /registry:a -->";
  EXPECT_EQ(scan("x\n" + a_open + "body\n" + a_close + "\ny"), (Found{{"a", "body\n"}}));
  EXPECT_EQ(scan(a_open + a_close), (Found{{"a", ""}}));
  EXPECT_EQ(scan("<!-- registry:a -->" + a_close), Found{});  // no line feed after the open
  EXPECT_EQ(scan("<!-- registry:a -->\r\n" + a_close), Found{});
  EXPECT_EQ(scan("<!-- registry:a -->\n<!-- /registry:a-->"), Found{});
  // Another name's close is body text; so is an open inside a body.
  EXPECT_EQ(scan(a_open + "<!-- /registry:b -->" + a_close),
            (Found{{"a", "<!-- /registry:b -->"}}));
  EXPECT_EQ(scan(a_open + "<!-- registry:b -->\nx<!-- /registry:b -->" + a_close),
            (Found{{"a", "<!-- registry:b -->\nx<!-- /registry:b -->"}}));
  // Nested opens of the same name: the outer one ends at the first close.
  EXPECT_EQ(scan(a_open + a_open + "x" + a_close + a_close), (Found{{"a", a_open + "x"}}));
  EXPECT_EQ(scan(a_open + "1" + a_close + a_open + "2" + a_close), (Found{{"a", "1"}, {"a", "2"}}));
  // An unclosed open is skipped, and the search goes on past it.
  EXPECT_EQ(scan("<!-- registry:z -->\n" + a_open + "k" + a_close), (Found{{"a", "k"}}));
  // A close before its open does not count.
  EXPECT_EQ(scan(a_close + a_open), Found{});
  // Names: word characters, ':' and '-', nothing else, and not empty.
  EXPECT_EQ(scan("<!-- registry:p:x-1_B -->\nq<!-- /registry:p:x-1_B -->"),
            (Found{{"p:x-1_B", "q"}}));
  EXPECT_EQ(scan("<!-- registry:a b -->\n<!-- /registry:a b -->"), Found{});
  EXPECT_EQ(scan("<!-- registry:a.b -->\n<!-- /registry:a.b -->"), Found{});
  EXPECT_EQ(scan("<!-- registry: -->\n<!-- /registry: -->"), Found{});
  // A close of a longer name that starts with the same characters is not this name's close.
  EXPECT_EQ(scan(a_open + "<!-- /registry:ab -->" + a_close),
            (Found{{"a", "<!-- /registry:ab -->"}}));
}

TEST(MarkerScanner, WideStorageAndItsOwnWordTest) {
  // Code units above Latin-1 with a predicate that counts U+00E9 and U+0663 as word characters.
  auto word = [](std::uint32_t c) { return ascii_word(c) || c == 0xE9 || c == 0x663; };
  std::u32string text = U"<!-- registry:\u00e9\u0663 -->\nz\u4e00<!-- /registry:\u00e9\u0663 -->";
  std::vector<MarkedBlock> blocks;
  scan_markers(reinterpret_cast<const std::uint32_t*>(text.data()),
               static_cast<std::ptrdiff_t>(text.size()), word, blocks);
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_EQ(blocks[0].name_end - blocks[0].name_start, 2);
  EXPECT_EQ(blocks[0].close_start - blocks[0].body_start, 2);
  EXPECT_EQ(blocks[0].close_end, static_cast<std::ptrdiff_t>(text.size()));

  std::u16string narrow = u"<!-- registry:\u00e9 -->\n<!-- /registry:\u00e9 -->";
  blocks.clear();
  scan_markers(reinterpret_cast<const std::uint16_t*>(narrow.data()),
               static_cast<std::ptrdiff_t>(narrow.size()), ascii_word, blocks);
  EXPECT_TRUE(blocks.empty());  // not a word character for this predicate
}

}  // namespace
}  // namespace registry_docs
