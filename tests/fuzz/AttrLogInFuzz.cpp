// libFuzzer's entry points: every input is a received attribute-log stream
// (ReceivedStream.h). A refusal is an answer; an escaping exception, a crash or a sanitizer
// report is a finding.
#include <cstddef>
#include <cstdint>

#include "model/MountInterface.h"
#include "tests/fuzz/ReceivedStream.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ::mountInterfaceAttrLogIs(true);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  attrlogfuzz::applyToFreshCopies({reinterpret_cast<char const*>(data), size});
  return 0;
}
