#include "py.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "compat.h"

namespace registry_docs {

namespace {

template <typename To, typename From>
void convert(void* to, const void* from, Py_ssize_t length) {
  auto* out = static_cast<To*>(to);
  auto* in = static_cast<const From*>(from);
  for (Py_ssize_t i = 0; i < length; ++i) out[i] = static_cast<To>(in[i]);
}

template <typename To>
void convert_from(int from_kind, void* to, const void* from, Py_ssize_t length) {
  switch (from_kind) {
    case PyUnicode_1BYTE_KIND:
      return convert<To, Py_UCS1>(to, from, length);
    case PyUnicode_2BYTE_KIND:
      return convert<To, Py_UCS2>(to, from, length);
    default:
      return convert<To, Py_UCS4>(to, from, length);
  }
}

// Copies characters between storage kinds; a part of a wide str may go into a narrower result,
// which holds every character of it.
void convert_kind(int to_kind, void* to, int from_kind, const void* from, Py_ssize_t length) {
  switch (to_kind) {
    case PyUnicode_1BYTE_KIND:
      return convert_from<Py_UCS1>(from_kind, to, from, length);
    case PyUnicode_2BYTE_KIND:
      return convert_from<Py_UCS2>(from_kind, to, from, length);
    default:
      return convert_from<Py_UCS4>(from_kind, to, from, length);
  }
}

// Most pieces are a few characters (a separator, a word, a cell): two overlapping fixed-size
// copies spare the call.
inline void copy_bytes(char* out, const char* in, size_t bytes) {
  if (bytes >= 8 && bytes <= 16) {
    memcpy(out, in, 8);
    memcpy(out + bytes - 8, in + bytes - 8, 8);
  } else if (bytes >= 4 && bytes < 8) {
    memcpy(out, in, 4);
    memcpy(out + bytes - 4, in + bytes - 4, 4);
  } else if (bytes >= 2 && bytes < 4) {
    memcpy(out, in, 2);
    memcpy(out + bytes - 2, in + bytes - 2, 2);
  } else if (bytes == 1) {
    *out = *in;
  } else {
    memcpy(out, in, bytes);
  }
}

template <typename Char>
Py_UCS4 widest_of(const Char* data, Py_ssize_t start, Py_ssize_t end) {
  Py_UCS4 widest = 0;
  for (Py_ssize_t i = start; i < end; ++i) widest = std::max<Py_UCS4>(widest, data[i]);
  return widest;
}

// The widest character of `text[start:end]`.
Py_UCS4 widest_in(PyObject* text, Py_ssize_t start, Py_ssize_t end) {
  switch (PyUnicode_KIND(text)) {
    case PyUnicode_1BYTE_KIND:
      return widest_of(PyUnicode_1BYTE_DATA(text), start, end);
    case PyUnicode_2BYTE_KIND:
      return widest_of(PyUnicode_2BYTE_DATA(text), start, end);
    default:
      return widest_of(PyUnicode_4BYTE_DATA(text), start, end);
  }
}

}  // namespace

template <typename F>
void TextWriter::each(F f) {
  Piece* inline_end = first_ ? inline_ + kInline : next_;
  for (Piece* piece = inline_; piece != inline_end; ++piece) f(*piece);
  for (Chunk* chunk = first_; chunk; chunk = chunk->next) {
    Piece* end = chunk == last_ ? next_ : chunk->pieces() + chunk->capacity;
    for (Piece* piece = chunk->pieces(); piece != end; ++piece) f(*piece);
  }
}

TextWriter::~TextWriter() {
  each([](Piece& piece) { Py_XDECREF(piece.text); });
  while (first_) PyMem_Free(std::exchange(first_, first_->next));
}

void TextWriter::grow() {
  size_t capacity = last_ ? std::min<size_t>(last_->capacity * 2, 4096) : 32;
  auto* chunk = static_cast<Chunk*>(PyMem_Malloc(sizeof(Chunk) + capacity * sizeof(Piece)));
  if (!chunk) throw std::bad_alloc();
  chunk->next = nullptr;
  chunk->capacity = capacity;
  (last_ ? last_->next : first_) = chunk;
  last_ = chunk;
  next_ = chunk->pieces();
  end_ = next_ + capacity;
}

TextWriter& TextWriter::str(PyObject* text) {
  return substring(text, 0, PyUnicode_GET_LENGTH(text));
}

TextWriter& TextWriter::ascii(const char* text, Py_ssize_t size) {
  if (size > 0) {
    add() = Piece{nullptr, text, size, PyUnicode_1BYTE_KIND};
    length_ += size;
    widest_ = std::max<Py_UCS4>(widest_, 127);
  }
  return *this;
}

TextWriter& TextWriter::format(PyObject* value) {
  if (PyUnicode_CheckExact(value)) return str(value);
  return str(own(PyObject_Format(value, nullptr)).get());
}

TextWriter& TextWriter::number(Py_ssize_t n) {
  return str(str_of(own(PyLong_FromSsize_t(n)).get()).get());
}

TextWriter& TextWriter::substring(PyObject* text, Py_ssize_t start, Py_ssize_t end) {
  if (start >= end) return *this;
  check(PyUnicode_READY(text));
  int kind = PyUnicode_KIND(text);
  const void* data = static_cast<const char*>(PyUnicode_DATA(text)) + start * kind;
  add() = Piece{Ref::borrow(text).release(), data, end - start, kind};
  length_ += end - start;
  // The kind of a whole str tells its widest character closely enough to choose the result's
  // kind; a part of one may be narrower, and the result must have the narrowest kind that holds it.
  Py_UCS4 bound = PyUnicode_IS_ASCII(text) ? Py_UCS4{127} : PyUnicode_MAX_CHAR_VALUE(text);
  if (bound > widest_) {
    bool whole = start == 0 && end == PyUnicode_GET_LENGTH(text);
    widest_ = std::max(widest_, whole ? bound : widest_in(text, start, end));
  }
  return *this;
}

Ref TextWriter::finish() {
  if (count_ == 1 && inline_[0].text && PyUnicode_CheckExact(inline_[0].text) &&
      inline_[0].length == PyUnicode_GET_LENGTH(inline_[0].text)) {
    return Ref::borrow(inline_[0].text);
  }
  Ref result = own(PyUnicode_New(length_, widest_));
  int kind = PyUnicode_KIND(result.get());
  char* out = static_cast<char*>(PyUnicode_DATA(result.get()));
  each([&](const Piece& piece) {
    if (piece.kind == kind) {
      copy_bytes(out, static_cast<const char*>(piece.data),
                 static_cast<size_t>(piece.length) * static_cast<size_t>(kind));
    } else {
      convert_kind(kind, out, piece.kind, piece.data, piece.length);
    }
    out += piece.length * kind;
  });
  return result;
}

JoinWriter::JoinWriter(const char* separator)
    : separator_(separator), separator_size_(static_cast<Py_ssize_t>(strlen(separator))) {}

TextWriter* JoinWriter::start() {
  Py_ssize_t index = count_++;
  if (bad_index_ >= 0) return nullptr;
  if (index > 0 && separator_size_ > 0) writer_.ascii(separator_, separator_size_);
  return &writer_;
}

void JoinWriter::item(PyObject* text) {
  if (bad_index_ < 0 && !PyUnicode_Check(text)) {
    bad_index_ = count_++;
    bad_item_ = Ref::borrow(text);
    return;
  }
  if (TextWriter* out = start()) out->str(text);
}

Ref JoinWriter::finish() {
  if (bad_index_ >= 0) join_type_error(bad_index_, bad_item_.get());
  return writer_.finish();
}

namespace {

// At most 6 arguments are ever passed; one slot before them lets callees reuse the array.
constexpr size_t kMaxArgs = 7;

}  // namespace

Ref call(PyObject* callable, std::initializer_list<PyObject*> args) {
  PyObject* stack[kMaxArgs + 1];
  size_t n = 0;
  for (PyObject* arg : args) stack[1 + n++] = arg;
  return own(PyObject_Vectorcall(callable, stack + 1, n | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

Ref call_method(PyObject* obj, PyObject* method, std::initializer_list<PyObject*> args) {
  PyObject* stack[kMaxArgs + 1];
  stack[0] = obj;
  size_t n = 1;
  for (PyObject* arg : args) stack[n++] = arg;
  return own(PyObject_VectorcallMethod(method, stack, n | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

Ref mapping_get(PyObject* mapping, PyObject* key, PyObject* get_method_name) {
  if (!PyDict_CheckExact(mapping)) return call_method(mapping, get_method_name, {key});
  PyObject* found = nullptr;
  if (check(compat::dict_get_ref(mapping, key, &found))) return Ref::steal(found);
  return Ref::borrow(Py_None);
}

void join_type_error(Py_ssize_t index, PyObject* item) {
  PyErr_Format(PyExc_TypeError, "sequence item %zd: expected str instance, %.80s found", index,
               Py_TYPE(item)->tp_name);
  raise();
}

std::pair<Ref, Ref> unpack_pair(PyObject* item) {
  if (PyTuple_CheckExact(item) || PyList_CheckExact(item)) {
    if (PySequence_Fast_GET_SIZE(item) == 2) {
      PyObject** items = PySequence_Fast_ITEMS(item);
      return {Ref::borrow(items[0]), Ref::borrow(items[1])};
    }
  }
  Ref iterator = Ref::steal(PyObject_GetIter(item));
  if (!iterator) {
    if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(item)->tp_iter == nullptr &&
        !PySequence_Check(item)) {
      PyErr_Clear();
      PyErr_Format(PyExc_TypeError, "cannot unpack non-iterable %.200s object",
                   Py_TYPE(item)->tp_name);
    }
    raise();
  }
  Ref parts[2];
  for (int i = 0; i < 2; ++i) {
    parts[i] = next(iterator.get());
    if (!parts[i]) {
      PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected 2, got %d)", i);
      raise();
    }
  }
  if (next(iterator.get())) {
    PyErr_SetString(PyExc_ValueError, "too many values to unpack (expected 2)");
    raise();
  }
  return {std::move(parts[0]), std::move(parts[1])};
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
