#include "text.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace registry_docs {

namespace {

// Copies characters between storage kinds; a part of a wide str may go into a narrower result,
// which holds every character of it.
void convert_kind(int to_kind, void* to, int from_kind, const void* from, Py_ssize_t length) {
  with_chars(from_kind, from, [&](auto* in) {
    with_chars(to_kind, to, [&](auto* out) {
      for (Py_ssize_t i = 0; i < length; ++i)
        out[i] = static_cast<std::decay_t<decltype(*out)>>(in[i]);
    });
  });
}

// The widest character of `text[start:end]`.
Py_UCS4 widest_in(PyObject* text, Py_ssize_t start, Py_ssize_t end) {
  return with_chars(text, [&](auto* chars) {
    Py_UCS4 widest = 0;
    for (Py_ssize_t i = start; i < end; ++i) widest = std::max<Py_UCS4>(widest, chars[i]);
    return widest;
  });
}

int kind_for(Py_UCS4 widest) {
  return widest < 256     ? PyUnicode_1BYTE_KIND
         : widest < 65536 ? PyUnicode_2BYTE_KIND
                          : PyUnicode_4BYTE_KIND;
}

// Chunks of the usual size are kept for the next text, up to a bound, rather than given back: a
// freed run of them at the top of the heap would be returned to the system, and the next text
// would take every page afresh. Plain malloc, so that no interpreter's allocator is involved.
constexpr size_t kChunkBytes = 64 * 1024 - 64;
constexpr int kKeptChunks = 32;

struct ChunkCache {
  void* free = nullptr;  // each kept chunk starts with the pointer to the next
  int count = 0;
  ~ChunkCache() {
    while (free) std::free(std::exchange(free, *static_cast<void**>(free)));
  }
};
thread_local ChunkCache chunk_cache;

void* take_chunk(size_t bytes) {
  if (bytes == kChunkBytes && chunk_cache.free) {
    --chunk_cache.count;
    return std::exchange(chunk_cache.free, *static_cast<void**>(chunk_cache.free));
  }
  void* chunk = std::malloc(bytes);
  if (!chunk) throw std::bad_alloc();
  return chunk;
}

void give_back_chunk(void* chunk, size_t bytes) {
  if (bytes == kChunkBytes && chunk_cache.count < kKeptChunks) {
    *static_cast<void**>(chunk) = chunk_cache.free;
    chunk_cache.free = chunk;
    ++chunk_cache.count;
    return;
  }
  std::free(chunk);
}

}  // namespace

void TextWriter::free_chunks() {
  while (first_) {
    Chunk* chunk = std::exchange(first_, first_->next);
    give_back_chunk(chunk, sizeof(Chunk) + static_cast<size_t>(chunk->capacity));
  }
}

TextWriter::~TextWriter() {
  free_chunks();
}

template <typename F>
void TextWriter::each(F f) {
  if (!first_) {
    f(inline_, pos_ - inline_);
    return;
  }
  f(inline_, inline_used_);
  for (Chunk* chunk = first_; chunk; chunk = chunk->next) {
    f(chunk->data(), chunk == last_ ? pos_ - chunk->data() : chunk->used);
  }
}

Py_ssize_t TextWriter::length() const {
  const char* start = last_ ? last_->data() : inline_;
  return before_ + (pos_ - start) / kind_;
}

void TextWriter::grow(Py_ssize_t length, int kind) {
  Py_ssize_t written = this->length();
  if (length > PY_SSIZE_T_MAX / 8 - written) throw std::bad_alloc();
  // A piece longer than a chunk gets one of its own size.
  constexpr auto kChunk = static_cast<Py_ssize_t>(kChunkBytes - sizeof(Chunk));
  bool wider = kind != kind_;
  Py_ssize_t bytes = std::max((wider ? written + length : length) * kind, kChunk);
  auto* chunk = static_cast<Chunk*>(take_chunk(sizeof(Chunk) + static_cast<size_t>(bytes)));
  chunk->next = nullptr;
  chunk->used = 0;
  chunk->capacity = bytes;
  char* out = chunk->data();
  if (wider) {
    // Rare: every character so far is converted into the new chunk, which replaces the others.
    each([&](const char* data, Py_ssize_t size) {
      convert_kind(kind, out, kind_, data, size / kind_);
      out += size / kind_ * kind;
    });
    free_chunks();
    last_ = nullptr;
    inline_used_ = 0;
    before_ = 0;
  } else if (last_) {
    last_->used = pos_ - last_->data();
    before_ = written;
  } else {
    inline_used_ = pos_ - inline_;
    before_ = written;
  }
  (last_ ? last_->next : first_) = chunk;
  last_ = chunk;
  pos_ = out;
  end_ = chunk->data() + bytes;
  kind_ = kind;
}

void TextWriter::write(const void* data, int kind, Py_ssize_t length, Py_UCS4 widest) {
  if (widest > widest_) {
    widest_ = widest;
    int wider = kind_for(widest);
    if (wider > kind_) grow(length, wider);
  }
  if (length * kind_ > end_ - pos_) grow(length, kind_);
  if (kind == kind_) {
    memcpy(pos_, data, static_cast<size_t>(length * kind));
  } else {
    convert_kind(kind_, pos_, kind, data, length);
  }
  pos_ += length * kind_;
}

// A second piece comes: the first, kept as it was, is copied in first.
void TextWriter::flush_sole() {
  Ref held = std::move(sole_);
  PyObject* sole = held.get();
  write(PyUnicode_DATA(sole), PyUnicode_KIND(sole), PyUnicode_GET_LENGTH(sole),
        PyUnicode_IS_ASCII(sole) ? Py_UCS4{127} : PyUnicode_MAX_CHAR_VALUE(sole));
}

TextWriter& TextWriter::ascii_slow(const char* text, Py_ssize_t size) {
  if (size > 0) {
    if (sole_) flush_sole();
    write(text, PyUnicode_1BYTE_KIND, size, 127);
  }
  return *this;
}

TextWriter& TextWriter::substring_slow(PyObject* text, Py_ssize_t start, Py_ssize_t end) {
  if (start >= end) return *this;
  check(PyUnicode_READY(text));
  bool whole = start == 0 && end == PyUnicode_GET_LENGTH(text);
  if (whole && pos_ == inline_ && !sole_ && PyUnicode_CheckExact(text)) {
    sole_ = Ref::borrow(text);
    return *this;
  }
  if (sole_) flush_sole();
  int kind = PyUnicode_KIND(text);
  // The kind of a whole str tells its widest character closely enough to choose the result's
  // kind; a part of one may be narrower, and the result must have the narrowest kind that holds it.
  Py_UCS4 bound = PyUnicode_IS_ASCII(text) ? Py_UCS4{127} : PyUnicode_MAX_CHAR_VALUE(text);
  if (bound > widest_ && !whole) bound = widest_in(text, start, end);
  write(static_cast<const char*>(PyUnicode_DATA(text)) + start * kind, kind, end - start, bound);
  return *this;
}

Ref TextWriter::finish() {
  if (sole_) return std::move(sole_);
  Ref result = own(PyUnicode_New(length(), widest_));
  char* out = static_cast<char*>(PyUnicode_DATA(result.get()));
  each([&](const char* data, Py_ssize_t size) {
    memcpy(out, data, static_cast<size_t>(size));
    out += size;
  });
  return result;
}

Piece::Piece(PyObject* value)
    : text_(PyUnicode_CheckExact(value)
                ? value
                : (formatted_ = own(PyObject_Format(value, nullptr))).get()) {}

Piece::Piece(Py_ssize_t number)
    : formatted_(str_of(own(PyLong_FromSsize_t(number)).get())), text_(formatted_.get()) {}

Ref fstr(std::initializer_list<Piece> pieces) {
  TextWriter out;
  for (const Piece& piece : pieces) {
    piece.ascii_ ? out.ascii(piece.ascii_, piece.size_) : out.str(piece.text_);
  }
  return out.finish();
}

JoinWriter::JoinWriter(const char* separator)
    : separator_(separator), separator_size_(static_cast<Py_ssize_t>(strlen(separator))) {}

TextWriter* JoinWriter::start() {
  Py_ssize_t index = count_++;
  if (bad_index_ >= 0) return nullptr;
  if (index > 0 && separator_size_ > 0) writer_.ascii(separator_, separator_size_);
  return &writer_;
}

void JoinWriter::item(Obj text) {
  if (bad_index_ < 0 && !PyUnicode_Check(text.get())) {
    bad_index_ = count_++;
    bad_item_ = Ref::borrow(text.get());
    return;
  }
  if (TextWriter* out = start()) out->str(text.get());
}

Ref JoinWriter::finish() {
  if (bad_index_ >= 0) join_type_error(bad_index_, bad_item_.get());
  return writer_.finish();
}

Ref enclosed(char open, PyObject* text, char close) {
  Py_ssize_t size = PyUnicode_GET_LENGTH(text);
  Py_UCS4 widest = PyUnicode_IS_ASCII(text) ? 127 : PyUnicode_MAX_CHAR_VALUE(text);
  Ref result = own(PyUnicode_New(size + 2, widest));
  // The result has the text's kind: its characters are copied as they are stored.
  int kind = PyUnicode_KIND(result.get());
  void* data = PyUnicode_DATA(result.get());
  PyUnicode_WRITE(kind, data, 0, static_cast<Py_UCS4>(open));
  memcpy(static_cast<char*>(data) + kind, PyUnicode_DATA(text),
         static_cast<size_t>(size) * static_cast<size_t>(kind));
  PyUnicode_WRITE(kind, data, size + 1, static_cast<Py_UCS4>(close));
  return result;
}

}  // namespace registry_docs
