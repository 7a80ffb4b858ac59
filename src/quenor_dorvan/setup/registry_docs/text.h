// The text builder: pieces in, one str of exact size and narrowest kind out.
#pragma once
#include <cstring>
#include <type_traits>

#include "py.h"

namespace registry_docs {

// `Char*`, or `const Char*` where `Void` is const.
template <typename Void, typename Char>
using CharsOf = std::conditional_t<std::is_const_v<Void>, const Char, Char>*;

// Calls f with the characters at `data`, stored at `kind`, as an array of that kind's code units.
template <typename Void, typename F>
decltype(auto) with_chars(int kind, Void* data, F f) {
  switch (kind) {
    case PyUnicode_1BYTE_KIND: return f(static_cast<CharsOf<Void, Py_UCS1>>(data));
    case PyUnicode_2BYTE_KIND: return f(static_cast<CharsOf<Void, Py_UCS2>>(data));
    default: return f(static_cast<CharsOf<Void, Py_UCS4>>(data));
  }
}
template <typename F>
decltype(auto) with_chars(PyObject* text, F f) {
  return with_chars(PyUnicode_KIND(text), static_cast<const void*>(PyUnicode_DATA(text)), f);
}

// Builds one str without repeated concatenation: characters are copied as they come, into a small
// buffer of its own and then into chunks, in the narrowest kind that holds those written so far,
// and copied once more into a str of exact size and kind at the end. Chunks of bounded size are
// reused by the allocator from one text to the next, where one growing buffer would take fresh
// pages. A text made of one whole str alone is that str.
class TextWriter {
 public:
  TextWriter() = default;
  ~TextWriter();
  TextWriter(const TextWriter&) = delete;
  TextWriter& operator=(const TextWriter&) = delete;

  TextWriter& str(PyObject* text) {  // text must be a str (any subclass)
    return substring(text, 0, PyUnicode_GET_LENGTH(text));
  }
  // ASCII text (copied at once).
  TextWriter& ascii(const char* text, Py_ssize_t size) {
    if (kind_ == PyUnicode_1BYTE_KIND && !sole_ && size <= end_ - pos_) {
      if (size <= 0) return *this;
      memcpy(pos_, text, static_cast<size_t>(size));
      pos_ += size;
      if (widest_ < 127) widest_ = 127;
      return *this;
    }
    return ascii_slow(text, size);
  }
  template <Py_ssize_t N>
  TextWriter& lit(const char (&text)[N]) {
    return ascii(text, N - 1);
  }
  TextWriter& substring(PyObject* text, Py_ssize_t start, Py_ssize_t end) {
    // The common case inline: one-byte characters, no wider than those written so far, and room.
    // (Nothing written yet takes the other path, which may keep a whole str as it is.)
    if (start < end && kind_ == PyUnicode_1BYTE_KIND && pos_ != inline_ &&
        PyUnicode_IS_READY(text) && PyUnicode_KIND(text) == PyUnicode_1BYTE_KIND &&
        end - start <= end_ - pos_ &&
        (PyUnicode_IS_ASCII(text) ? widest_ >= 127 : widest_ >= 255)) {
      memcpy(pos_, PyUnicode_1BYTE_DATA(text) + start, static_cast<size_t>(end - start));
      pos_ += end - start;
      return *this;
    }
    return substring_slow(text, start, end);
  }
  Ref finish();

 private:
  struct Chunk {
    Chunk* next;
    Py_ssize_t used;      // bytes
    Py_ssize_t capacity;  // bytes
    char* data() { return reinterpret_cast<char*>(this + 1); }
  };

  // Copies `length` characters stored at `kind`, none wider than `widest`.
  void write(const void* data, int kind, Py_ssize_t length, Py_UCS4 widest);
  TextWriter& ascii_slow(const char* text, Py_ssize_t size);
  TextWriter& substring_slow(PyObject* text, Py_ssize_t start, Py_ssize_t end);
  // Room for `length` more characters at `kind`, at least the present one.
  void grow(Py_ssize_t length, int kind);
  // Calls f(data, bytes) for each stretch written, in order.
  template <typename F>
  void each(F f);
  Py_ssize_t length() const;  // characters
  void free_chunks();
  void flush_sole();

  static constexpr Py_ssize_t kInline = 240;  // bytes: most cells and short lines fit
  char inline_[kInline];
  Py_ssize_t inline_used_ = 0;  // bytes, once writing has moved on to the chunks
  char* pos_ = inline_;         // where the next character goes
  char* end_ = inline_ + kInline;
  Chunk* first_ = nullptr;
  Chunk* last_ = nullptr;  // the chunk pos_ is in, if any
  Py_ssize_t before_ = 0;  // characters in the stretches before pos_'s
  int kind_ = PyUnicode_1BYTE_KIND;
  Py_UCS4 widest_ = 0;
  Ref sole_;  // the first piece while it is a whole exact str alone, not yet copied
};

// One piece of an f-string: ASCII text as written, or a value as `format(value)` gives it when the
// piece is made. In a braced list each piece is made before the next is evaluated, as an f-string
// formats each field before it evaluates the next.
class Piece {
 public:
  template <size_t N>
  Piece(const char (&text)[N])  // NOLINT(google-explicit-constructor): as an f-string states it
      : ascii_(text), size_(static_cast<Py_ssize_t>(N - 1)) {}
  Piece(PyObject* value);                          // NOLINT(google-explicit-constructor)
  Piece(const Ref& value) : Piece(value.get()) {}  // NOLINT(google-explicit-constructor)
  Piece(Py_ssize_t number);                        // NOLINT(google-explicit-constructor)

 private:
  friend Ref fstr(std::initializer_list<Piece> pieces);
  const char* ascii_ = nullptr;
  Py_ssize_t size_ = 0;
  Ref formatted_;
  PyObject* text_ = nullptr;  // an exact str given is borrowed: it outlives the braced list
};

// `f"..."` of its pieces, in order.
Ref fstr(std::initializer_list<Piece> pieces);

// Writes `separator.join(items)` item by item into one str. An item that is not a str is reported
// as join reports it, and only once every item has been given (join sees them all first).
class JoinWriter {
 public:
  explicit JoinWriter(const char* separator);
  // One whole item.
  void item(Obj text);
  // Starts the next item and gives the writer for its pieces; null once an earlier item was not a
  // str, when the remaining items are only counted.
  TextWriter* start();
  Ref finish();

 private:
  TextWriter writer_;
  const char* separator_;
  Py_ssize_t separator_size_;
  Py_ssize_t count_ = 0;
  Ref bad_item_;
  Py_ssize_t bad_index_ = -1;
};

// `open + text + close` for a str and two ASCII characters, built at its exact size.
Ref enclosed(char open, PyObject* text, char close);

}  // namespace registry_docs
