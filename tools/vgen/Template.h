// What the emitters share: templates with {{NAME}} holes, and how a schema type reads in
// C++.
#pragma once

#include <map>
#include <string>

#include "Schema.h"

namespace vgen {

using Vars = std::map<std::string, std::string>;

// Replaces every {{NAME}} of a template by its value; an unset name is a logic error.
std::string fill(std::string const& tmpl, Vars const& vars);
std::string upperFirst(std::string s);
std::string lowerFirst(std::string s);

struct TypeInfo {
  std::string cpp;       // the C++ type
  std::string ret;       // how an accessor returns it
  bool pointer = false;  // a Vesk::Ptr
  bool parseable = false;
  std::string pointee;  // for pointers: the entity type with its constness
};
TypeInfo typeInfo(Schema const& s, std::string const& t);

}  // namespace vgen
