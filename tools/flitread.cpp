// flitread FILE: prints the messages kept in a flitlog trace file, oldest first, one line
// each: "Module:line text".
//
// Exit status: 0 when the whole file decoded; 1 when it cannot be read or is damaged (the
// messages before the damage are still printed); 2 on bad arguments.
#include <cstdio>
#include <string_view>

#include "framework/trace/FlitlogReader.h"

namespace {

void usage(std::FILE* to) {
  std::fputs(
      "usage: flitread FILE\n"
      "Prints the messages of a flitlog trace file, oldest first, as \"Module:line text\".\n",
      to);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (std::string_view(argv[1]) == "-h" || std::string_view(argv[1]) == "--help")) {
    usage(stdout);
    return 0;
  }
  if (argc != 2 || argv[1][0] == '\0' || (argv[1][0] == '-' && argv[1][1] != '\0')) {
    usage(stderr);
    return 2;
  }
  Vesk::FlitDecoding const d = Vesk::readFlitlogFile(argv[1]);
  for (Vesk::FlitMessage const& m : d.messages) {
    std::string const line = m.lineText();
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
  }
  if (d.lostDescriptors) {
    std::fprintf(stderr,
                 "flitread: %u call sites found the descriptor area full; their "
                 "messages were not kept\n",
                 d.lostDescriptors);
  }
  if (d.lostMessages) {
    std::fprintf(stderr,
                 "flitread: the ring wrapped; %llu earlier messages were dropped to make room\n",
                 static_cast<unsigned long long>(d.lostMessages));
  }
  if (std::fflush(stdout) != 0) return 1;
  if (!d.ok()) {
    std::fprintf(stderr, "flitread: %s: %s\n", argv[1], d.error.c_str());
    return 1;
  }
  return 0;
}
