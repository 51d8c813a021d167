// Writes the C++ of one schema: a header and a source, with one emitter per attribute kind
// (key, param, scalar or reference, collection of values, collection of owned entities,
// parent back pointer). Each emitter fills named sections (declarations, members, inline
// and out-of-line definitions, notifiee handlers, reflection rows) from templates that
// look like their output.
#pragma once

#include <string>

#include "Schema.h"

namespace vgen {

struct Output {
  std::string header;
  std::string source;
};

Output emit(Schema const& schema, std::string const& schemaName);

}  // namespace vgen
