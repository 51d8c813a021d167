// The framework's exceptions and the texts they carry.
//
// Every failure the framework reports to its users is one of these, thrown out of the
// mutator that caused it. The message builders compose the exact texts that callers and
// tests compare against.
#pragma once

#include <stdexcept>

#include "framework/core/String.h"

namespace Vesk {

class Exception : public std::runtime_error {
 public:
  explicit Exception(String const& what) : std::runtime_error(what.stdString()) {}
};

// An entity or machine created again under its key with a differing constructor value.
class ReinstantiationException : public Exception {
  using Exception::Exception;
};
// A null pointer handed to a mutator whose attribute does not allow null.
class NullParameterException : public Exception {
  using Exception::Exception;
};
class RangeException : public Exception {
  using Exception::Exception;
};
class NameInUseException : public Exception {
  using Exception::Exception;
};
// A local write to an attribute of a read-only copy.
class ReadOnlyException : public Exception {
  using Exception::Exception;
};
// A received write to an attribute that no remote end may set (a key or a constructor
// parameter).
class ReadOnlyProxyException : public Exception {
  using Exception::Exception;
};

// "Reinstantiating the entity with fullName <fullName> where constructor parameter
// attribute '<attr>' has a different value of <new> than the current value of <old>"
String entityReinstantiationText(String const& fullName, char const* attr, String const& newValue,
                                 String const& oldValue);
// "Reinstantiating the pointer interface where constructor parameter attribute _<param> has
// a different value of"
String ptrInterfaceReinstantiationText(char const* param);
// "null _<attr> parameter to mutator for <type>::<attr> not allowed"" -- the trailing
// double quote belongs to the text.
String nullParameterText(char const* attr, char const* qualifiedType);

// "Attempt to modify read-only attribute <attr> of <fullName>"
String readOnlyText(char const* attr, String const& fullName);
// "Remote write to attribute <attr> of read-only proxy <fullName> not allowed"
String readOnlyProxyText(char const* attr, String const& fullName);

[[noreturn]] void throwEntityReinstantiation(String const& fullName, char const* attr,
                                             String const& newValue, String const& oldValue);
// The same text followed by " not allowed", as a name-in-use failure.
[[noreturn]] void throwNameInUseReinstantiation(String const& fullName, char const* attr,
                                                String const& newValue, String const& oldValue);
[[noreturn]] void throwPtrInterfaceReinstantiation(char const* param);
[[noreturn]] void throwNullParameter(char const* attr, char const* qualifiedType);
[[noreturn]] void throwRangeException(char const* what);
[[noreturn]] void throwNameInUseException(String const& what);

}  // namespace Vesk
