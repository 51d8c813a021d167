// Ptr<T>: an intrusive strong pointer to a PtrInterface-derived object.
//
// Copying a Ptr adds a reference, destroying it drops one; the object's count lives in the
// object itself, so a Ptr can be made again from a raw pointer at any time. Ptr<T const>
// gives read-only access. Conversions follow the pointer conversions of T*.
//
// TYPICAL USAGE:
//   Ptr<Foo> foo = new Foo(...);     // count 1
//   Ptr<Foo const> view = foo;       // count 2
//   foo = nullptr;                   // count 1
#pragma once

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace Vesk {

template <class T>
class Ptr {
 public:
  using element_type = T;

  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) noexcept : p_(p) {
    if (p_) p_->newRef();
  }
  Ptr(Ptr const& o) noexcept : Ptr(o.p_) {}
  Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U> const& o) noexcept : Ptr(o.ptr()) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() {
    if (p_) p_->deleteRef();
  }

  Ptr& operator=(Ptr const& o) noexcept {
    Ptr(o).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    Ptr(std::move(o)).swap(*this);
    return *this;
  }
  Ptr& operator=(T* p) noexcept {
    Ptr(p).swap(*this);
    return *this;
  }

  T* ptr() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  bool operator!() const noexcept { return p_ == nullptr; }

  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }
  // Gives up ownership without dropping the reference.
  T* release() noexcept {
    T* p = p_;
    p_ = nullptr;
    return p;
  }

 private:
  T* p_ = nullptr;
};

template <class T, class U>
bool operator==(Ptr<T> const& a, Ptr<U> const& b) {
  return a.ptr() == b.ptr();
}
template <class T>
bool operator==(Ptr<T> const& a, std::nullptr_t) {
  return a.ptr() == nullptr;
}
template <class T, class U>
bool operator==(Ptr<T> const& a, U* b) {
  return a.ptr() == b;
}
template <class T, class U>
bool operator<(Ptr<T> const& a, Ptr<U> const& b) {
  return std::less<void const*>()(a.ptr(), b.ptr());
}

template <class T, class U>
Ptr<T> ptr_cast(Ptr<U> const& p) {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}
template <class T, class U>
Ptr<T> static_ptr_cast(Ptr<U> const& p) {
  return Ptr<T>(static_cast<T*>(p.ptr()));
}
template <class T, class U>
Ptr<T> const_ptr_cast(Ptr<U> const& p) {
  return Ptr<T>(const_cast<T*>(p.ptr()));
}

}  // namespace Vesk
