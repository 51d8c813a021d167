// vgen: generates the C++ of a model module from its schema.
//
//   vgen SCHEMA OUTDIR      writes OUTDIR/<module>.h and OUTDIR/<module>.cpp
//
// Files are rewritten only when their text changes, so an unchanged schema does not
// trigger a rebuild of everything that includes its header.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "Emit.h"
#include "Schema.h"

namespace {

void writeIfChanged(std::filesystem::path const& path, std::string const& text) {
  std::ifstream in(path);
  if (in) {
    std::stringstream old;
    old << in.rdbuf();
    if (old.str() == text) return;
  }
  std::ofstream out(path);
  out << text;
  if (!out) throw std::runtime_error(path.string() + ": cannot write");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: vgen SCHEMA OUTDIR\n";
    return 2;
  }
  try {
    vgen::Schema schema = vgen::parseSchema(argv[1]);
    std::filesystem::path schemaPath(argv[1]);
    std::string schemaName =
        schemaPath.parent_path().filename().string() + "/" + schemaPath.filename().string();
    vgen::Output out = vgen::emit(schema, schemaName);
    std::filesystem::path dir(argv[2]);
    std::filesystem::create_directories(dir);
    writeIfChanged(dir / (schema.module + ".h"), out.header);
    writeIfChanged(dir / (schema.module + ".cpp"), out.source);
  } catch (std::exception const& e) {
    std::cerr << "vgen: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
