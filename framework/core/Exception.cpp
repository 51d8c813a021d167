#include "framework/core/Exception.h"

namespace Vesk {

String entityReinstantiationText(String const& fullName, char const* attr, String const& newValue,
                                 String const& oldValue) {
  return "Reinstantiating the entity with fullName " + fullName +
         " where constructor parameter attribute '" + attr + "' has a different value of " +
         newValue + " than the current value of " + oldValue;
}

String ptrInterfaceReinstantiationText(char const* param) {
  return String("Reinstantiating the pointer interface where constructor parameter attribute _") +
         param + " has a different value of";
}

String nullParameterText(char const* attr, char const* qualifiedType) {
  return String("null _") + attr + " parameter to mutator for " + qualifiedType + "::" + attr +
         " not allowed\"";
}

String readOnlyText(char const* attr, String const& fullName) {
  return String("Attempt to modify read-only attribute ") + attr + " of " + fullName;
}

String readOnlyProxyText(char const* attr, String const& fullName) {
  return String("Remote write to attribute ") + attr + " of read-only proxy " + fullName +
         " not allowed";
}

void throwEntityReinstantiation(String const& fullName, char const* attr, String const& newValue,
                                String const& oldValue) {
  throw ReinstantiationException(entityReinstantiationText(fullName, attr, newValue, oldValue));
}

void throwNameInUseReinstantiation(String const& fullName, char const* attr, String const& newValue,
                                   String const& oldValue) {
  throw NameInUseException(entityReinstantiationText(fullName, attr, newValue, oldValue) +
                           " not allowed");
}

void throwPtrInterfaceReinstantiation(char const* param) {
  throw ReinstantiationException(ptrInterfaceReinstantiationText(param));
}

void throwNullParameter(char const* attr, char const* qualifiedType) {
  throw NullParameterException(nullParameterText(attr, qualifiedType));
}

void throwRangeException(char const* what) { throw RangeException(String(what)); }

void throwNameInUseException(String const& what) { throw NameInUseException(what); }

}  // namespace Vesk
