// The block-marker scanner: finds `<!-- registry:NAME -->\n ... <!-- /registry:NAME -->` blocks
// as the module's `_MARKER` pattern does with `finditer`, in time linear in the text.
//
// The pattern's engine backtracks: every open marker without a close makes it search the rest of
// the text, so thousands of them cost quadratic time. Here a first pass indexes the close markers
// by name; the open markers are then walked in order, each taking the first close of its name at or
// after its body through a forward cursor kept per name.
//
// Pure C++: it reads an array of code units as CPython's str kinds store them (uint8_t, uint16_t
// or uint32_t) and takes the word-character test as a parameter.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace registry_docs {

// One marked block: positions of its pieces, in code units of the text.
struct MarkedBlock {
  std::ptrdiff_t open_start;  // "<!-- registry:"
  std::ptrdiff_t name_start, name_end;
  std::ptrdiff_t body_start;  // after the open marker's line feed
  std::ptrdiff_t close_start;
  std::ptrdiff_t close_end;

  bool operator==(const MarkedBlock&) const = default;
};

namespace markers {

inline constexpr char kLead[] = "<!-- ";  // what both markers start with
inline constexpr char kOpenTag[] = "registry:";
inline constexpr char kCloseTag[] = "/registry:";
inline constexpr char kOpenEnd[] = " -->\n";
inline constexpr char kCloseEnd[] = " -->";

template <std::size_t N>
constexpr std::ptrdiff_t length(const char (&)[N]) {
  return static_cast<std::ptrdiff_t>(N - 1);
}

template <typename Char, std::size_t N>
bool at(const Char* text, std::ptrdiff_t size, std::ptrdiff_t pos, const char (&word)[N]) {
  if (size - pos < length(word)) return false;
  for (std::ptrdiff_t i = 0; i < length(word); ++i) {
    if (text[pos + i] != static_cast<unsigned char>(word[i])) return false;
  }
  return true;
}

// One marker found in the text: where it starts and where its name lies.
struct Marker {
  std::ptrdiff_t start, name_start, name_end;
};

// The open and close markers of a text, in text order. A name ends at the first character that
// cannot be in one, so each "<!-- " gives at most one marker and a name never runs into the next
// "<". `is_word(c)` says whether code point c counts as a word character (`\w`).
template <typename Char, typename IsWord>
void find_markers(const Char* text, std::ptrdiff_t size, IsWord is_word, std::vector<Marker>& opens,
                  std::vector<Marker>& closes) {
  auto name_end = [&](std::ptrdiff_t pos) {
    while (pos < size) {
      std::uint32_t c = text[pos];
      if (c != ':' && c != '-' && !is_word(c)) break;
      ++pos;
    }
    return pos;
  };
  for (std::ptrdiff_t pos = 0; pos < size; ++pos) {
    if constexpr (sizeof(Char) == 1) {
      const void* lt = std::memchr(text + pos, '<', static_cast<std::size_t>(size - pos));
      if (!lt) break;
      pos = static_cast<const Char*>(lt) - text;
    }
    if (text[pos] != '<' || !at(text, size, pos, kLead)) continue;
    std::ptrdiff_t tag = pos + length(kLead);
    bool open = at(text, size, tag, kOpenTag);
    if (!open && !at(text, size, tag, kCloseTag)) continue;
    std::ptrdiff_t start = tag + (open ? length(kOpenTag) : length(kCloseTag));
    std::ptrdiff_t end = name_end(start);
    if (end > start && (open ? at(text, size, end, kOpenEnd) : at(text, size, end, kCloseEnd))) {
      (open ? opens : closes).push_back({pos, start, end});
    }
    pos = end - 1;
  }
}

}  // namespace markers

// Appends the blocks of `text` to `blocks`, in text order. `is_word(c)` says whether code point c
// counts as a word character (`\w`); names are runs of word characters, ':' and '-'.
template <typename Char, typename IsWord>
void scan_markers(const Char* text, std::ptrdiff_t size, IsWord is_word,
                  std::vector<MarkedBlock>& blocks) {
  using namespace markers;
  std::vector<Marker> opens;
  std::vector<Marker> closes;
  find_markers(text, size, is_word, opens, closes);
  // The close markers of each name, in text order: the first and last of each name, the next of
  // the same name after each; the first is then the cursor that only moves forward.
  auto name_of = [text](const Marker& marker) {  // its code units' bytes
    return std::string_view(
        reinterpret_cast<const char*>(text + marker.name_start),
        static_cast<std::size_t>(marker.name_end - marker.name_start) * sizeof(Char));
  };
  constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  std::unordered_map<std::string_view, std::pair<std::size_t, std::size_t>> by_name(closes.size());
  std::vector<std::size_t> next(closes.size(), kNone);
  for (std::size_t i = 0; i < closes.size(); ++i) {
    auto [found, added] = by_name.try_emplace(name_of(closes[i]), i, i);
    if (!added) next[std::exchange(found->second.second, i)] = i;
  }
  std::ptrdiff_t resume = 0;  // where the search goes on after the last block found
  for (const Marker& open : opens) {
    if (open.start < resume) continue;  // inside the previous block: body text
    std::ptrdiff_t body_start = open.name_end + length(kOpenEnd);
    auto found = by_name.find(name_of(open));
    if (found == by_name.end()) continue;
    std::size_t& cursor = found->second.first;
    while (cursor != kNone && closes[cursor].start < body_start) cursor = next[cursor];
    if (cursor == kNone) continue;  // unclosed: skipped
    const Marker& close = closes[cursor];
    std::ptrdiff_t close_end = close.name_end + length(kCloseEnd);
    blocks.push_back(
        {open.start, open.name_start, open.name_end, body_start, close.start, close_end});
    resume = close_end;
  }
}

}  // namespace registry_docs
