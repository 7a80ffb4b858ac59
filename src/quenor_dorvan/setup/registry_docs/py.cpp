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

bool TextWriter::str(PyObject* text) {
  return _PyUnicodeWriter_WriteStr(&writer_, text) == 0;
}

bool TextWriter::ascii(const char* text, Py_ssize_t size) {
  return _PyUnicodeWriter_WriteASCIIString(&writer_, text, size) == 0;
}

bool TextWriter::substring(PyObject* text, Py_ssize_t start, Py_ssize_t end) {
  if (start >= end) return true;
  return _PyUnicodeWriter_WriteSubstring(&writer_, text, start, end) == 0;
}

bool TextWriter::ch(Py_UCS4 c) {
  return _PyUnicodeWriter_WriteChar(&writer_, c) == 0;
}

Ref TextWriter::finish() {
  finished_ = true;
  return Ref::steal(_PyUnicodeWriter_Finish(&writer_));
}

JoinWriter::JoinWriter(const char* separator)
    : separator_(separator), separator_size_(static_cast<Py_ssize_t>(strlen(separator))) {}

TextWriter* JoinWriter::start() {
  Py_ssize_t index = count_++;
  if (bad_index_ >= 0) return nullptr;
  if (index > 0 && separator_size_ > 0 && !writer_.ascii(separator_, separator_size_)) {
    return nullptr;
  }
  return &writer_;
}

bool JoinWriter::item(PyObject* text) {
  if (bad_index_ < 0 && !PyUnicode_Check(text)) {
    bad_index_ = count_++;
    bad_item_ = Ref::borrow(text);
    return true;
  }
  TextWriter* out = start();
  return out ? out->str(text) : !PyErr_Occurred();
}

Ref JoinWriter::finish() {
  if (bad_index_ >= 0) {
    join_type_error(bad_index_, bad_item_.get());
    return Ref();
  }
  return writer_.finish();
}

namespace {

const char* const kNameTexts[] = {
#define REGISTRY_DOCS_TEXT(id, text) text,
    REGISTRY_DOCS_NAMES(REGISTRY_DOCS_TEXT)
#undef REGISTRY_DOCS_TEXT
};

PyObject* g_names[static_cast<int>(Id::count)] = {};

}  // namespace

bool init_names() {
  if (g_names[0]) return true;
  for (int i = 0; i < static_cast<int>(Id::count); ++i) {
    PyObject* text = PyUnicode_InternFromString(kNameTexts[i]);
    if (!text) {
      for (int j = 0; j < i; ++j) Py_CLEAR(g_names[j]);
      return false;
    }
    g_names[i] = text;
  }
  return true;
}

PyObject* name(Id id) {
  return g_names[static_cast<int>(id)];
}

Ref call_method(PyObject* obj, Id method, std::initializer_list<PyObject*> args) {
  PyObject* stack[8];  // callers pass at most 6 arguments
  stack[0] = obj;
  size_t n = 1;
  for (PyObject* arg : args) stack[n++] = arg;
  return Ref::steal(
      PyObject_VectorcallMethod(name(method), stack, n | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

Ref call(PyObject* callable, std::initializer_list<PyObject*> args) {
  PyObject* stack[8];  // callers pass at most 6 arguments
  stack[0] = nullptr;
  size_t n = 0;
  for (PyObject* arg : args) stack[1 + n++] = arg;
  return Ref::steal(
      PyObject_Vectorcall(callable, stack + 1, n | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

Ref subscript(PyObject* obj, PyObject* key) {
  return Ref::steal(PyObject_GetItem(obj, key));
}

Ref subscript(PyObject* obj, Id key) {
  return subscript(obj, name(key));
}

Ref mapping_get(PyObject* mapping, PyObject* key) {
  if (PyDict_CheckExact(mapping)) {
    PyObject* found = nullptr;
    int status = compat::dict_get_ref(mapping, key, &found);
    if (status < 0) return Ref();
    return status ? Ref::steal(found) : Ref::borrow(Py_None);
  }
  return call_method(mapping, Id::get, {key});
}

Ref mapping_get(PyObject* mapping, Id key) {
  return mapping_get(mapping, name(key));
}

bool check_concat(PyObject* obj) {
  if (PyUnicode_Check(obj)) return true;
  PyErr_Format(PyExc_TypeError, "can only concatenate str (not \"%.200s\") to str",
               Py_TYPE(obj)->tp_name);
  return false;
}

void join_type_error(Py_ssize_t index, PyObject* item) {
  PyErr_Format(PyExc_TypeError, "sequence item %zd: expected str instance, %.80s found", index,
               Py_TYPE(item)->tp_name);
}

bool unpack_pair(PyObject* item, Ref& first, Ref& second) {
  if (PyTuple_CheckExact(item) || PyList_CheckExact(item)) {
    Py_ssize_t size = PySequence_Fast_GET_SIZE(item);
    if (size == 2) {
      PyObject** items = PySequence_Fast_ITEMS(item);
      first = Ref::borrow(items[0]);
      second = Ref::borrow(items[1]);
      return true;
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
    return false;
  }
  Ref parts[2];
  for (int i = 0; i < 2; ++i) {
    parts[i] = Ref::steal(PyIter_Next(iterator.get()));
    if (!parts[i]) {
      if (!PyErr_Occurred()) {
        PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected 2, got %d)", i);
      }
      return false;
    }
  }
  Ref extra = Ref::steal(PyIter_Next(iterator.get()));
  if (extra) {
    PyErr_SetString(PyExc_ValueError, "too many values to unpack (expected 2)");
    return false;
  }
  if (PyErr_Occurred()) return false;
  first = std::move(parts[0]);
  second = std::move(parts[1]);
  return true;
}

Ref enclosed(char open, PyObject* text, char close) {
  Py_ssize_t size = PyUnicode_GET_LENGTH(text);
  Py_UCS4 widest = PyUnicode_IS_ASCII(text) ? 127 : PyUnicode_MAX_CHAR_VALUE(text);
  Ref result = Ref::steal(PyUnicode_New(size + 2, widest));
  if (!result) return Ref();
  int kind = PyUnicode_KIND(result.get());
  void* data = PyUnicode_DATA(result.get());
  PyUnicode_WRITE(kind, data, 0, static_cast<Py_UCS4>(open));
  if (PyUnicode_CopyCharacters(result.get(), 1, text, 0, size) < 0) return Ref();
  PyUnicode_WRITE(kind, data, size + 1, static_cast<Py_UCS4>(close));
  return result;
}

Ref join(Id separator, PyObject* list) {
  return Ref::steal(PyUnicode_Join(name(separator), list));
}

}  // namespace registry_docs
