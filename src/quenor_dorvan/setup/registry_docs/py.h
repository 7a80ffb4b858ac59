// The owning reference handle, the one error channel and the calls every subsystem shares.
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

// An object given as a handle or as a plain pointer, borrowed for the length of a call: a handle
// made in the call's arguments lives until the whole expression is done.
class Obj {
 public:
  Obj(PyObject* obj) : obj_(obj) {}  // NOLINT(google-explicit-constructor): both forms are meant
  Obj(const Ref& ref) : obj_(ref.get()) {}  // NOLINT(google-explicit-constructor)
  PyObject* get() const { return obj_; }

 private:
  PyObject* obj_;
};

// Raises `type(message)`.
[[noreturn]] inline void raise(PyObject* type, Obj message) {
  PyErr_SetObject(type, message.get());
  raise();
}

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

// Calls any callable with positional arguments; the slot before them lets a callee reuse the array.
template <typename... Args>
Ref call(PyObject* callable, Args... args) {
  PyObject* stack[] = {nullptr, args...};
  return own(PyObject_Vectorcall(callable, stack + 1,
                                 sizeof...(Args) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}
// Calls a method by name with positional arguments.
template <typename... Args>
Ref call_method(PyObject* obj, PyObject* method, Args... args) {
  PyObject* stack[] = {obj, args...};
  return own(PyObject_VectorcallMethod(
      method, stack, (1 + sizeof...(Args)) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

inline Ref getattr(PyObject* obj, PyObject* attr) {
  return own(PyObject_GetAttr(obj, attr));
}
inline Ref subscript(PyObject* obj, PyObject* key) {
  return own(PyObject_GetItem(obj, key));
}
// `mapping.get(key)`, or `mapping.get(key, fallback)` when one is given (exact dicts take the
// direct path).
Ref mapping_get(PyObject* mapping, PyObject* key, PyObject* get_method_name,
                PyObject* fallback = nullptr);

// `(a, b, ...)`, its items evaluated left to right as a braced list is; a null item is left out,
// as `*()` spreads nothing.
Ref tuple_of(std::initializer_list<Obj> items);
// `a + b + ...`, the operands evaluated left to right as a braced list is, and then added.
Ref add(std::initializer_list<Obj> operands);
// `len(obj)`.
inline Py_ssize_t len(Obj obj) {
  return check_size(PyObject_Size(obj.get()));
}

// `text.endswith(suffix)`; an exact str's own test is made without a method call.
bool ends_with(PyObject* text, PyObject* suffix, PyObject* endswith_method_name);

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
// `value or fallback`.
inline Ref otherwise(Ref value, Obj fallback) {
  return truth(value.get()) ? value : Ref::borrow(fallback.get());
}
// `item in container`.
inline bool contains(Obj container, Obj item) {
  return check(PySequence_Contains(container.get(), item.get())) != 0;
}
// `list.append(item)` for a list.
inline void append(Obj list, Obj item) {
  check(PyList_Append(list.get(), item.get()));
}
// `bool(a <op> b)` without the identity shortcut of PyObject_RichCompareBool: `==` on host objects
// must reach their own comparison.
inline bool compare(PyObject* a, PyObject* b, int op) {
  return truth(own(PyObject_RichCompare(a, b, op)).get());
}
// `separator.join(items)`.
inline Ref join(PyObject* separator, PyObject* items) {
  return own(PyUnicode_Join(separator, items));
}

// The error `str.join` raises for item `index` of a sequence that is not a str.
[[noreturn]] void join_type_error(Py_ssize_t index, PyObject* item);
// `iter(obj)`; the TypeError for an object that cannot be iterated is worded by `format` (its type
// name for the one %.200s), as the interpreter words it for the statement that iterates.
Ref iterate(PyObject* obj, const char* format);
// Unpacks one item into exactly two, with the interpreter's own unpacking errors.
std::pair<Ref, Ref> unpack_pair(PyObject* item);

}  // namespace registry_docs
