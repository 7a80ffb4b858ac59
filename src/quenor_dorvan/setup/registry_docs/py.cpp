#include "py.h"

#include <cstring>

#include "compat.h"

namespace registry_docs {

TextWriter::TextWriter() {
  _PyUnicodeWriter_Init(&writer_);
  writer_.overallocate = 1;
}

TextWriter::~TextWriter() {
  if (!finished_) _PyUnicodeWriter_Dealloc(&writer_);
}

TextWriter& TextWriter::str(PyObject* text) {
  check(_PyUnicodeWriter_WriteStr(&writer_, text));
  return *this;
}

TextWriter& TextWriter::ascii(const char* text, Py_ssize_t size) {
  check(_PyUnicodeWriter_WriteASCIIString(&writer_, text, size));
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
  if (start < end) check(_PyUnicodeWriter_WriteSubstring(&writer_, text, start, end));
  return *this;
}

Ref TextWriter::finish() {
  finished_ = true;
  return own(_PyUnicodeWriter_Finish(&writer_));
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
  int kind = PyUnicode_KIND(result.get());
  void* data = PyUnicode_DATA(result.get());
  PyUnicode_WRITE(kind, data, 0, static_cast<Py_UCS4>(open));
  check(static_cast<int>(PyUnicode_CopyCharacters(result.get(), 1, text, 0, size)));
  PyUnicode_WRITE(kind, data, size + 1, static_cast<Py_UCS4>(close));
  return result;
}

}  // namespace registry_docs
