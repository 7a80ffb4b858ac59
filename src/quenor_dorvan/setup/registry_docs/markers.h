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
#include <vector>

namespace registry_docs {

// One marked block: positions of its pieces, in code units of the text.
struct MarkedBlock {
  std::ptrdiff_t open_start;  // "<!-- registry:"
  std::ptrdiff_t name_start, name_end;
  std::ptrdiff_t body_start;  // after the open marker's line feed
  std::ptrdiff_t close_start;
  std::ptrdiff_t close_end;
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

// A name's hash over its code units: FNV-1a with a final mix, so that the low bits the table
// uses depend on every unit.
template <typename Char>
std::uint64_t name_hash(const Char* name, std::ptrdiff_t size) {
  std::uint64_t hash = 14695981039346656037ull;
  for (std::ptrdiff_t i = 0; i < size; ++i) {
    hash = (hash ^ static_cast<std::uint64_t>(name[i])) * 1099511628211ull;
  }
  hash ^= hash >> 33;
  hash *= 0xff51afd7ed558ccdull;
  return hash ^ (hash >> 33);
}

template <typename Char>
bool same_name(const Char* a, const Char* b, std::ptrdiff_t size) {
  for (std::ptrdiff_t i = 0; i < size; ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

// One marker found in the text: where it starts and where its name lies.
struct Marker {
  std::ptrdiff_t start, name_start, name_end;
};

}  // namespace markers

// Appends the blocks of `text` to `blocks`, in text order. `is_word(c)` says whether code point c
// counts as a word character (`\w`); names are runs of word characters, ':' and '-'.
template <typename Char, typename IsWord>
void scan_markers(const Char* text, std::ptrdiff_t size, IsWord is_word,
                  std::vector<MarkedBlock>& blocks) {
  using namespace markers;
  auto name_end = [&](std::ptrdiff_t pos) {
    while (pos < size) {
      std::uint32_t c = text[pos];
      if (c != ':' && c != '-' && !is_word(c)) break;
      ++pos;
    }
    return pos;
  };

  // A name ends at the first character that cannot be in one, so each "<!-- " gives at most one
  // marker, and a name never runs into the next "<".
  std::vector<Marker> opens;
  std::vector<Marker> closes;
  for (std::ptrdiff_t pos = 0; pos < size; ++pos) {
    if constexpr (sizeof(Char) == 1) {
      const void* lt = std::memchr(text + pos, '<', static_cast<std::size_t>(size - pos));
      if (!lt) break;
      pos = static_cast<const Char*>(lt) - text;
    }
    if (text[pos] != '<' || !at(text, size, pos, kLead)) continue;
    std::ptrdiff_t tag = pos + length(kLead);
    if (at(text, size, tag, kOpenTag)) {
      std::ptrdiff_t start = tag + length(kOpenTag);
      std::ptrdiff_t end = name_end(start);
      if (end > start && at(text, size, end, kOpenEnd)) opens.push_back({pos, start, end});
      pos = end - 1;
    } else if (at(text, size, tag, kCloseTag)) {
      std::ptrdiff_t start = tag + length(kCloseTag);
      std::ptrdiff_t end = name_end(start);
      if (end > start && at(text, size, end, kCloseEnd)) closes.push_back({pos, start, end});
      pos = end - 1;
    }
  }
  if (opens.empty() || closes.empty()) return;

  // The close markers of each name, in text order: an open-addressing table from name to a list
  // threaded through `next`, and a cursor per name that only moves forward.
  std::size_t capacity = 16;
  while (capacity < 2 * closes.size()) capacity *= 2;
  const std::size_t mask = capacity - 1;
  constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  std::vector<std::size_t> slots(capacity, kNone);  // first close of the name in the slot
  std::vector<std::size_t> last(capacity, kNone);   // last close of the name, while threading
  std::vector<std::size_t> next(closes.size(), kNone);
  auto find_slot = [&](const Marker& marker, bool& found) {
    std::ptrdiff_t size_of_name = marker.name_end - marker.name_start;
    std::size_t slot = static_cast<std::size_t>(name_hash(text + marker.name_start, size_of_name));
    for (slot &= mask;; slot = (slot + 1) & mask) {
      if (slots[slot] == kNone) {
        found = false;
        return slot;
      }
      const Marker& held = closes[slots[slot]];
      if (held.name_end - held.name_start == size_of_name &&
          same_name(text + held.name_start, text + marker.name_start, size_of_name)) {
        found = true;
        return slot;
      }
    }
  };
  for (std::size_t i = 0; i < closes.size(); ++i) {
    bool found = false;
    std::size_t slot = find_slot(closes[i], found);
    if (found) {
      next[last[slot]] = i;
    } else {
      slots[slot] = i;
    }
    last[slot] = i;
  }
  std::vector<std::size_t>& cursors = last;  // reused: the first close not yet passed, per name
  for (std::size_t slot = 0; slot < capacity; ++slot) cursors[slot] = slots[slot];

  std::ptrdiff_t resume = 0;  // where the search goes on after the last block found
  for (const Marker& open : opens) {
    if (open.start < resume) continue;  // inside the previous block: body text
    bool found = false;
    std::size_t slot = find_slot(open, found);
    if (!found) continue;
    std::ptrdiff_t body_start = open.name_end + length(kOpenEnd);
    std::size_t& cursor = cursors[slot];
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
