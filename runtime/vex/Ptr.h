// SPDX-License-Identifier: Apache-2.0
//
// Vex::Ptr<T>: a counted reference to an object that derives from Vex::PtrInterface. Null is
// allowed. `Ptr<T const>` gives read-only access and is how machines hold what they do not write.
//
// A new object starts with a count of 1 that belongs to nobody yet; makePtr() and adopt() hand that
// count to the first reference. Constructing a Ptr from a plain pointer takes a count of its own.
// Not safe for two threads at once unless Vex::enableThreadSafePointers is on, and even then only
// the count is: one Ptr object belongs to one thread.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "runtime/vex/Exception.h"

namespace Vex {

template <class T>
class Ptr {
 public:
  using element_type = T;

  constexpr Ptr() noexcept = default;
  constexpr Ptr(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor): null is a value
  explicit Ptr(T* object) noexcept : object_(object) { acquire(); }
  Ptr(const Ptr& other) noexcept : object_(other.object_) { acquire(); }
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  // NOLINTNEXTLINE(google-explicit-constructor): converts as plain pointers do
  Ptr(const Ptr<U>& other) noexcept : object_(other.get()) {
    acquire();
  }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  // NOLINTNEXTLINE(google-explicit-constructor): converts as plain pointers do
  Ptr(Ptr<U>&& other) noexcept : object_(other.release()) {}
  ~Ptr() { drop(); }

  Ptr& operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  // Takes over one count that the caller owns.
  static Ptr adopt(T* object) noexcept {
    Ptr result;
    result.object_ = object;
    return result;
  }

  // Gives the count to the caller and becomes null.
  [[nodiscard]] T* release() noexcept { return std::exchange(object_, nullptr); }
  void reset() noexcept { *this = Ptr(); }

  T* get() const noexcept { return object_; }
  T* operator->() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

  template <class U>
  friend bool operator==(const Ptr& a, const Ptr<U>& b) noexcept {
    return a.get() == b.get();
  }
  friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.get() == nullptr; }

 private:
  void acquire() const noexcept {
    if (object_ != nullptr) object_->vexRef();
  }
  void drop() noexcept {
    if (object_ != nullptr) object_->vexUnref();
  }

  T* object_ = nullptr;
};

// Makes a T; the result holds its only count.
template <class T, class... Args>
[[nodiscard]] Ptr<T> makePtr(Args&&... args) {
  return Ptr<T>::adopt(new T(std::forward<Args>(args)...));
}

// What every operation goes through that promises a result: raises the range exception
// "null ValidPtr" for null.
template <class T>
[[nodiscard]] Ptr<T> validPtr(Ptr<T> pointer) {
  if (!pointer) throwRangeException("null ValidPtr");
  return pointer;
}

template <class T, class U>
[[nodiscard]] Ptr<T> staticPtrCast(const Ptr<U>& pointer) noexcept {
  return Ptr<T>(static_cast<T*>(pointer.get()));
}

template <class T, class U>
[[nodiscard]] Ptr<T> dynamicPtrCast(const Ptr<U>& pointer) noexcept {
  return Ptr<T>(dynamic_cast<T*>(pointer.get()));
}

}  // namespace Vex

template <class T>
struct std::hash<Vex::Ptr<T>> {
  std::size_t operator()(const Vex::Ptr<T>& p) const noexcept { return std::hash<T*>{}(p.get()); }
};
