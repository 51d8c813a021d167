// The writing functions of generated reflection rows (Reflection.h), made from the
// generated mutators of an owner type T:
//
//   memberIsFromText<T, K, V, &T::fooIs>()     a scalar collection's fooIs(key, value)
//   memberNewFromText<T, K, M, &T::fooIs>()    an entity collection's fooIs(key)
//   memberDelFromText<T, K, &T::fooDel>()      either collection's fooDel(key)
//   referenceIsFromText<T, U>(t, &T::fooIs, text, "foo")   a reference's fooIs(target)
//
// The types are spelled out so that a mutator overloaded by hand-written members is picked
// by its generated signature. The first three give null, the row's "cannot be written",
// when a key or value type has no text form (no veskParse, ValueText.h).
#pragma once

#include <type_traits>

#include "framework/core/Entity.h"
#include "framework/core/Ptr.h"
#include "framework/core/String.h"
#include "framework/core/ValueText.h"

namespace Vesk {

template <class T>
concept ParsedFromText = std::is_default_constructible_v<T> && requires(String const& s, T& v) {
  veskParse(s, v);
};

namespace detail {

// The target named by a reference's text, null when the text is not a full name; throws
// RangeException when it names no entity of the holder's tree.
Ptr<Entity> referenceTarget(Entity const& holder, char const* attr, String const& fullName);
[[noreturn]] void throwReferenceTypeMismatch(Entity const& holder, char const* attr,
                                             Entity const& target, char const* expectedType);

template <class U>
char const* entityTypeName() {
  if constexpr (requires { U::typeName; }) {
    return U::typeName;
  } else {
    return "Vesk::Entity";
  }
}

}  // namespace detail

template <class T, class K, class V, void (T::*Is)(K const&, V const&)>
constexpr auto memberIsFromText() -> bool (*)(Entity&, String const&, String const&) {
  if constexpr (ParsedFromText<K> && ParsedFromText<V>) {
    return [](Entity& e, String const& keyText, String const& valueText) {
      K k{};
      V v{};
      if (!veskParse(keyText, k) || !veskParse(valueText, v)) return false;
      (static_cast<T&>(e).*Is)(k, v);
      return true;
    };
  } else {
    return nullptr;
  }
}

template <class T, class K, class M, Ptr<M> (T::*Is)(K const&)>
constexpr auto memberNewFromText() -> Ptr<Entity> (*)(Entity&, String const&) {
  if constexpr (ParsedFromText<K>) {
    return [](Entity& e, String const& keyText) -> Ptr<Entity> {
      K k{};
      if (!veskParse(keyText, k)) return nullptr;
      return (static_cast<T&>(e).*Is)(k);
    };
  } else {
    return nullptr;
  }
}

template <class T, class K, void (T::*Del)(K const&)>
constexpr auto memberDelFromText() -> bool (*)(Entity&, String const&) {
  if constexpr (ParsedFromText<K>) {
    return [](Entity& e, String const& keyText) {
      K k{};
      if (!veskParse(keyText, k)) return false;
      (static_cast<T&>(e).*Del)(k);
      return true;
    };
  } else {
    return nullptr;
  }
}

template <class T, class U>
bool referenceIsFromText(T& holder, void (T::*is)(Ptr<U> const&), String const& text,
                         char const* attr) {
  if (text == "null") {
    (holder.*is)(nullptr);
    return true;
  }
  Ptr<Entity> const target = detail::referenceTarget(holder, attr, text);
  if (!target) return false;
  U* typed = dynamic_cast<U*>(target.ptr());
  if (!typed) {
    detail::throwReferenceTypeMismatch(holder, attr, *target, detail::entityTypeName<U>());
  }
  (holder.*is)(Ptr<U>(typed));
  return true;
}

}  // namespace Vesk
