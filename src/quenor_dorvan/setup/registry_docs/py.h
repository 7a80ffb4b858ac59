// The owning reference handle, the one error channel and the few CPython helpers every subsystem
// shares.
#pragma once
#include <Python.h>

#include <initializer_list>
#include <new>
#include <utility>

namespace registry_docs {

// Thrown when a Python exception is set: code between two boundaries reads straight, and each
// boundary (a function call, an iterator step, the module's execution) catches it once and
// returns the interpreter's error value.
struct PythonError {};

[[noreturn]] inline void raise() {
  throw PythonError{};
}

// A status of the C API: negative means an exception is set.
inline int check(int status) {
  if (status < 0) raise();
  return status;
}

inline Py_ssize_t check_size(Py_ssize_t size) {
  if (size < 0) raise();
  return size;
}

// Owns one strong reference, or none.
class Ref {
 public:
  Ref() = default;
  // Takes over a new reference, which may be null.
  static Ref steal(PyObject* obj) {
    Ref ref;
    ref.obj_ = obj;
    return ref;
  }
  static Ref borrow(PyObject* obj) {
    Py_XINCREF(obj);
    return steal(obj);
  }
  Ref(const Ref& other) : obj_(other.obj_) { Py_XINCREF(obj_); }
  Ref(Ref&& other) noexcept : obj_(std::exchange(other.obj_, nullptr)) {}
  Ref& operator=(Ref other) noexcept {
    std::swap(obj_, other.obj_);
    return *this;
  }
  ~Ref() { Py_XDECREF(obj_); }

  PyObject* get() const { return obj_; }
  PyObject* release() { return std::exchange(obj_, nullptr); }
  explicit operator bool() const { return obj_ != nullptr; }

 private:
  PyObject* obj_ = nullptr;
};

// Takes over the result of a C API call that returns a new reference, or null with an exception
// set.
inline Ref own(PyObject* obj) {
  if (!obj) raise();
  return Ref::steal(obj);
}

// Runs a body at a boundary: a PythonError, or a C++ allocation failure turned into MemoryError,
// becomes `failed` with the Python exception set.
template <typename Body, typename Failed>
auto guarded(Body body, Failed failed) noexcept -> decltype(body()) {
  try {
    return body();
  } catch (const PythonError&) {
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  }
  return failed;
}

// Builds one str from pieces without repeated concatenation: the pieces are kept (a reference to
// each str, a pointer to each literal) and copied once, into a str made at its exact size and
// kind, when the text is finished.
class TextWriter {
 public:
  TextWriter() = default;
  ~TextWriter();
  TextWriter(const TextWriter&) = delete;
  TextWriter& operator=(const TextWriter&) = delete;

  TextWriter& str(PyObject* text);  // text must be a str (any subclass)
  // ASCII text that outlives the writer (a literal).
  TextWriter& ascii(const char* text, Py_ssize_t size);
  template <Py_ssize_t N>
  TextWriter& lit(const char (&text)[N]) {
    return ascii(text, N - 1);
  }
  // What an f-string writes for a replacement field without a spec: `format(value)`.
  TextWriter& format(PyObject* value);
  TextWriter& number(Py_ssize_t n);
  TextWriter& substring(PyObject* text, Py_ssize_t start, Py_ssize_t end);
  Ref finish();

 private:
  struct Piece {
    PyObject* text;    // the str the characters belong to, held by the writer; null for ASCII
    const void* data;  // the first character
    Py_ssize_t length;
    int kind;  // the storage kind of the characters
  };
  // Pieces past the first few go into chunks that are chained, never moved: a table's text has
  // thousands of pieces.
  struct Chunk {
    Chunk* next;
    size_t capacity;
    Piece* pieces() { return reinterpret_cast<Piece*>(this + 1); }
  };
  Piece& add() {
    if (next_ == end_) grow();
    ++count_;
    return *next_++;
  }
  void grow();
  // Calls f(piece) for each piece, in order.
  template <typename F>
  void each(F f);

  static constexpr size_t kInline = 8;
  Piece inline_[kInline];
  Piece* next_ = inline_;
  Piece* end_ = inline_ + kInline;
  Chunk* first_ = nullptr;
  Chunk* last_ = nullptr;
  size_t count_ = 0;
  Py_ssize_t length_ = 0;
  Py_UCS4 widest_ = 0;
};

// Writes `separator.join(items)` item by item into one str. An item that is not a str is reported
// as join reports it, and only once every item has been given (join sees them all first).
class JoinWriter {
 public:
  explicit JoinWriter(const char* separator);
  // One whole item.
  void item(PyObject* text);
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

// `next(iterator)`: the next item, or a null Ref at the end.
inline Ref next(PyObject* iterator) {
  Ref item = Ref::steal(PyIter_Next(iterator));
  if (!item && PyErr_Occurred()) raise();
  return item;
}

// Calls fn(item) for each item of an iterable, as a for loop does.
template <typename F>
void for_each(PyObject* iterable, F fn) {
  Ref iterator = own(PyObject_GetIter(iterable));
  while (Ref item = next(iterator.get())) fn(item.get());
}

// `[fn(item) for item in iterable]`.
template <typename F>
Ref collect(PyObject* iterable, F fn) {
  Ref list = own(PyList_New(0));
  for_each(iterable, [&](PyObject* item) { check(PyList_Append(list.get(), fn(item).get())); });
  return list;
}

// Calls any callable with positional arguments.
Ref call(PyObject* callable, std::initializer_list<PyObject*> args);
// Calls a method by name with positional arguments.
Ref call_method(PyObject* obj, PyObject* method, std::initializer_list<PyObject*> args);

inline Ref getattr(PyObject* obj, PyObject* attr) {
  return own(PyObject_GetAttr(obj, attr));
}
inline Ref subscript(PyObject* obj, PyObject* key) {
  return own(PyObject_GetItem(obj, key));
}
// `mapping.get(key)`: None when absent (exact dicts take the direct path).
Ref mapping_get(PyObject* mapping, PyObject* key, PyObject* get_method_name);

inline Ref text(const char* utf8) {
  return own(PyUnicode_FromString(utf8));
}
inline Ref str_of(PyObject* obj) {
  return own(PyObject_Str(obj));
}
// `bool(obj)`.
inline bool truth(PyObject* obj) {
  return check(PyObject_IsTrue(obj)) != 0;
}
// `bool(a <op> b)` without the identity shortcut of PyObject_RichCompareBool: `==` on host objects
// must reach their own comparison.
inline bool compare(PyObject* a, PyObject* b, int op) {
  return truth(own(PyObject_RichCompare(a, b, op)).get());
}
// `open + text + close` for a str and two ASCII characters, built at its exact size.
Ref enclosed(char open, PyObject* text, char close);
// `separator.join(items)`.
inline Ref join(PyObject* separator, PyObject* items) {
  return own(PyUnicode_Join(separator, items));
}

// The error `str.join` raises for item `index` of a sequence that is not a str.
[[noreturn]] void join_type_error(Py_ssize_t index, PyObject* item);
// Unpacks one item into exactly two, with the interpreter's own unpacking errors.
std::pair<Ref, Ref> unpack_pair(PyObject* item);

}  // namespace registry_docs
