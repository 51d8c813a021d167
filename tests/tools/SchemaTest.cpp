// The generator's schema reader refuses a malformed schema with the file and line at fault,
// before it could become C++ that does not compile.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

#include "Schema.h"

namespace {

std::string errorOf(std::string const& body) {
  std::string const path =
      ::testing::TempDir() + "schema_test_" + std::to_string(::getpid()) + ".schema";
  std::ofstream(path) << "module M\nnamespace A::B\n" << body;
  std::string error;
  try {
    vgen::parseSchema(path);
  } catch (std::runtime_error const& e) {
    error = e.what();
    error.erase(0, path.size());
  }
  std::remove(path.c_str());
  return error;
}

TEST(SchemaReader, RefusesWhatWouldNotCompileWithTheLineAtFault) {
  struct Case {
    char const* body;
    char const* error;
  };
  Case const cases[] = {
      {"enum E\n  a = 1\n  b = x\nend\n", ":5: expected a number from 0 to 4294967295, got 'x'"},
      {"enum E\n  a = -1\nend\n", ":4: expected a number from 0 to 4294967295, got '-1'"},
      {"enum E\n  a = 4294967296\nend\n",
       ":4: expected a number from 0 to 4294967295, got '4294967296'"},
      {"enum E\n  a = 1\n  a = 2\nend\n", ":5: enum E already has a"},
      {"enum E\n  a = 1\n  b = 1\nend\n", ":5: enum E already has the value 1"},
      {"enum E\n  a-b = 1\nend\n", ":4: 'a-b' is not a name"},
      {"entity A\n  key k : Name\n  attr k : u32\nend\n", ":5: entity A already has k"},
      {"entity A\n  key k : Name\n  attr 2x : u32\nend\n", ":5: '2x' is not a name"},
      {"entity A\n  key k : Name\nend\nenum A\nend\n", ":6: A is declared twice"},
      {"entity A\n  key k : Name\nend\nnamespace C\nentity A\n  key k : Name\nend\n", ""},
      {"namespace A::\n", ":3: 'A::' is not a name"},
      {"module M.x\n", ":3: 'M.x' is not a name"},
      {"entity A\n  attr a : u32\nend\n", ":3: entity A needs exactly one key"},
      {"entity A\n  attr a : u32\n  param p : u32\n  key k : Name\nend\n",
       ":5: constructor parameter p of entity A must follow the key"},
      {"entity A\n  attr a : u32 ctor\n  key k : Name\nend\n",
       ":4: constructor parameter a of entity A must follow the key"},
  };
  for (Case const& c : cases) EXPECT_EQ(errorOf(c.body), c.error) << c.body;
}

}  // namespace
