// A C++20 coroutine generator, the way a renderer states the rows of a table that are read lazily:
// a row is a generator of cells and a table's rows a generator of rows, each computed only when it
// is read, as Python's generators are (rows built in full first need none). The same statement is
// drained straight into the output, or handed to a caller's function as lazy Python iterators
// (markdown.h).
#pragma once
#include <algorithm>
#include <array>
#include <coroutine>
#include <optional>
#include <type_traits>
#include <utility>

#include "module_state.h"

namespace registry_docs {

template <typename T>
class Generator {
 public:
  struct promise_type {
    std::optional<T> current;
    bool failed = false;
    bool running = false;
    // The Python references the frame holds are its parameters; the garbage collector reaches
    // them through these pointers (a parameter moved out of leaves a null Ref behind).
    std::array<Ref*, 4> held{};
    Env* env = nullptr;

    template <typename... Args>
    explicit promise_type(Args&... args) {
      static_assert((std::is_same_v<Args, Ref> + ... + 0) <= 4, "at most four references");
      (hold(args), ...);
    }
    void hold(Ref& ref) { *std::find(held.begin(), held.end(), nullptr) = &ref; }
    void hold(Env& frame_env) { env = &frame_env; }
    template <typename Other>
    void hold(Other&) {}

    // Frames are small and many (one per row): Python's small-object allocator serves them
    // faster than the C++ heap, and the GIL is held wherever a frame is made or destroyed.
    static void* operator new(std::size_t size) {
      if (void* frame = PyMem_Malloc(size)) return frame;
      throw std::bad_alloc();
    }
    static void operator delete(void* frame) { PyMem_Free(frame); }

    Generator get_return_object() {
      return Generator(std::coroutine_handle<promise_type>::from_promise(*this));
    }
    std::suspend_always initial_suspend() noexcept { return {}; }
    std::suspend_always final_suspend() noexcept { return {}; }
    std::suspend_always yield_value(T value) {
      current = std::move(value);
      return {};
    }
    void return_void() {}
    // A coroutine that raised is finished, as a generator is; the error reaches its reader.
    void unhandled_exception() {
      failed = true;
      try {
        throw;
      } catch (const PythonError&) {
      } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
      }
    }
  };
  using Handle = std::coroutine_handle<promise_type>;

  Generator() = default;
  explicit Generator(Handle handle) : handle_(handle) {}
  Generator(Generator&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
  Generator& operator=(Generator&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Generator() {
    if (handle_) handle_.destroy();
  }

  // The next value, or nothing once the generator is finished. Throws when the body raised (once:
  // afterwards it is finished) or when it is already running further up the stack.
  std::optional<T> next() {
    if (!handle_ || handle_.done()) return std::nullopt;
    promise_type& promise = handle_.promise();
    if (promise.running) {
      PyErr_SetString(PyExc_ValueError, "generator already executing");
      raise();
    }
    promise.running = true;
    handle_.resume();
    promise.running = false;
    if (promise.failed) {
      promise.failed = false;
      raise();
    }
    if (handle_.done()) return std::nullopt;
    return std::exchange(promise.current, std::nullopt);
  }

  bool running() const { return handle_ && handle_.promise().running; }
  // The frame's own copy of the environment it was called with, if any.
  Env* env() const { return handle_ ? handle_.promise().env : nullptr; }

  int traverse(visitproc visit, void* arg) const {
    if (!handle_) return 0;
    for (Ref* ref : handle_.promise().held) {
      if (ref) Py_VISIT(ref->get());
    }
    if (handle_.promise().current) return visit_current(*handle_.promise().current, visit, arg);
    return 0;
  }

 private:
  static int visit_current(const Ref& value, visitproc visit, void* arg) {
    Py_VISIT(value.get());
    return 0;
  }
  template <typename Other>
  static int visit_current(const Other& value, visitproc visit, void* arg) {
    return value.traverse(visit, arg);
  }

  Handle handle_;
};

// A row: its cells, in column order.
using Cells = Generator<Ref>;
// A table's rows.
using Rows = Generator<Cells>;

}  // namespace registry_docs
