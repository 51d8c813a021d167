// Helpers for tests that check the exact failure texts.
#pragma once

#include <string>

namespace testsupport {

// The text of the E that f throws, or a marker when it throws none.
template <class E, class F>
std::string failureText(F&& f) {
  try {
    f();
  } catch (E const& e) {
    return e.what();
  }
  return "<no failure>";
}

// The reinstantiation text, spelled out here rather than taken from the code under test.
inline std::string reinstantiating(std::string const& fullName, std::string const& attr,
                                   std::string const& newValue, std::string const& oldValue) {
  return "Reinstantiating the entity with fullName " + fullName +
         " where constructor parameter attribute '" + attr + "' has a different value of " +
         newValue + " than the current value of " + oldValue;
}

}  // namespace testsupport
