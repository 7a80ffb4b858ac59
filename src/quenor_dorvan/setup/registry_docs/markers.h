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

// The close markers of each name, in text order: an open-addressing table from name to a list
// threaded through `next_`, and a cursor per name that only moves forward.
template <typename Char>
class CloseIndex {
 public:
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

  CloseIndex(const Char* text, const std::vector<Marker>& closes) : text_(text), closes_(closes) {
    std::size_t capacity = 16;
    while (capacity < 2 * closes.size()) capacity *= 2;
    mask_ = capacity - 1;
    slots_.assign(capacity, kNone);
    cursors_.assign(capacity, kNone);  // the last close of each name, while threading
    next_.assign(closes.size(), kNone);
    for (std::size_t i = 0; i < closes.size(); ++i) {
      bool found = false;
      std::size_t slot = find_slot(closes[i], found);
      if (found) {
        next_[cursors_[slot]] = i;
      } else {
        slots_[slot] = i;
      }
      cursors_[slot] = i;
    }
    cursors_ = slots_;  // from now on: the first close of each name not yet passed
  }

  // The first close marker with the open marker's name that starts at or after `pos`, or kNone.
  // Successive calls for one name must not ask for an earlier position.
  std::size_t first_close(const Marker& open, std::ptrdiff_t pos) {
    bool found = false;
    std::size_t slot = find_slot(open, found);
    if (!found) return kNone;
    std::size_t& cursor = cursors_[slot];
    while (cursor != kNone && closes_[cursor].start < pos) cursor = next_[cursor];
    return cursor;
  }

 private:
  std::size_t find_slot(const Marker& marker, bool& found) const {
    std::ptrdiff_t size_of_name = marker.name_end - marker.name_start;
    std::size_t slot = static_cast<std::size_t>(name_hash(text_ + marker.name_start, size_of_name));
    for (slot &= mask_;; slot = (slot + 1) & mask_) {
      if (slots_[slot] == kNone) {
        found = false;
        return slot;
      }
      const Marker& held = closes_[slots_[slot]];
      if (held.name_end - held.name_start == size_of_name &&
          same_name(text_ + held.name_start, text_ + marker.name_start, size_of_name)) {
        found = true;
        return slot;
      }
    }
  }

  const Char* text_;
  const std::vector<Marker>& closes_;
  std::size_t mask_ = 0;
  std::vector<std::size_t> slots_;    // first close of the name in the slot
  std::vector<std::size_t> cursors_;  // per slot
  std::vector<std::size_t> next_;     // the next close of the same name
};

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
  if (opens.empty() || closes.empty()) return;
  CloseIndex<Char> index(text, closes);
  std::ptrdiff_t resume = 0;  // where the search goes on after the last block found
  for (const Marker& open : opens) {
    if (open.start < resume) continue;  // inside the previous block: body text
    std::ptrdiff_t body_start = open.name_end + length(kOpenEnd);
    std::size_t found = index.first_close(open, body_start);
    if (found == CloseIndex<Char>::kNone) continue;  // unclosed: skipped
    const Marker& close = closes[found];
    std::ptrdiff_t close_end = close.name_end + length(kCloseEnd);
    blocks.push_back(
        {open.start, open.name_start, open.name_end, body_start, close.start, close_end});
    resume = close_end;
  }
}

}  // namespace registry_docs
