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

int kind_for(Py_UCS4 widest) {
  return widest < 256     ? PyUnicode_1BYTE_KIND
         : widest < 65536 ? PyUnicode_2BYTE_KIND
                          : PyUnicode_4BYTE_KIND;
}

}  // namespace

TextWriter::~TextWriter() {
  if (data_ != inline_) PyMem_Free(data_);
  Py_XDECREF(sole_);
}

// Room for `length` more characters at `kind` (at least the present one); a wider kind converts the
// characters written so far.
void TextWriter::grow(Py_ssize_t length, int kind) {
  if (length > PY_SSIZE_T_MAX / 8 - length_) throw std::bad_alloc();
  Py_ssize_t needed = (length_ + length) * kind;
  // Past the inline buffer a text is likely a block or a file: start at a few pages.
  Py_ssize_t capacity = std::max({needed, capacity_ * 2, Py_ssize_t{8192}});
  char* data = nullptr;
  if (kind == kind_ && data_ != inline_) {
    data = static_cast<char*>(PyMem_Realloc(data_, static_cast<size_t>(capacity)));
    if (!data) throw std::bad_alloc();
  } else {
    data = static_cast<char*>(PyMem_Malloc(static_cast<size_t>(capacity)));
    if (!data) throw std::bad_alloc();
    if (kind == kind_) {
      memcpy(data, data_, static_cast<size_t>(length_ * kind_));
    } else {
      convert_kind(kind, data, kind_, data_, length_);
    }
    if (data_ != inline_) PyMem_Free(data_);
  }
  data_ = data;
  capacity_ = capacity;
  kind_ = kind;
}

void TextWriter::reserve(Py_ssize_t more) {
  if ((length_ + more) * kind_ > capacity_) grow(more, kind_);
}

void TextWriter::write(const void* data, int kind, Py_ssize_t length, Py_UCS4 widest) {
  if (widest > widest_) {
    widest_ = widest;
    int wider = kind_for(widest);
    if (wider > kind_) grow(length, wider);
  }
  if ((length_ + length) * kind_ > capacity_) grow(length, kind_);
  char* out = data_ + length_ * kind_;
  if (kind == kind_) {
    copy_chars(out, data, length * kind);
  } else {
    convert_kind(kind_, out, kind, data, length);
  }
  length_ += length;
}

// A second piece comes: the first, kept as it was, is copied in first.
void TextWriter::flush_sole() {
  PyObject* sole = std::exchange(sole_, nullptr);
  Ref held = Ref::steal(sole);
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

TextWriter& TextWriter::format(PyObject* value) {
  if (PyUnicode_CheckExact(value)) return str(value);
  return str(own(PyObject_Format(value, nullptr)).get());
}

TextWriter& TextWriter::number(Py_ssize_t n) {
  return str(str_of(own(PyLong_FromSsize_t(n)).get()).get());
}

TextWriter& TextWriter::substring_slow(PyObject* text, Py_ssize_t start, Py_ssize_t end) {
  if (start >= end) return *this;
  check(PyUnicode_READY(text));
  bool whole = start == 0 && end == PyUnicode_GET_LENGTH(text);
  if (whole && length_ == 0 && !sole_ && PyUnicode_CheckExact(text)) {
    sole_ = Ref::borrow(text).release();
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
  if (sole_) return Ref::steal(std::exchange(sole_, nullptr));
  Ref result = own(PyUnicode_New(length_, widest_));
  memcpy(PyUnicode_DATA(result.get()), data_, static_cast<size_t>(length_ * kind_));
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
