// The fuzz target's corpus replayed through the reader, as the fuzz target does it
// (ReceivedStream.h). A stream the writer produced (status-*, config-*) is taken whole by the
// copy of its root's type and refused by the other; every other input (a regression case,
// once a finding) only has to be applied or refused cleanly.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "model/MountInterface.h"
#include "tests/fuzz/ReceivedStream.h"

namespace {

using attrlogfuzz::Outcome;

std::string contents(std::filesystem::path const& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void expectTakenWhole(Outcome const& taken, Outcome const& refused, size_t size) {
  EXPECT_EQ(taken.refusal, "");
  EXPECT_EQ(taken.applied, size);
  EXPECT_NE(refused.refusal.find("into a copy of"), std::string::npos) << refused.refusal;
}

TEST(AttrLogCorpus, EveryInputIsAppliedOrRefusedCleanly) {
  ::mountInterfaceAttrLogIs(true);
  size_t streams = 0;
  for (auto const& entry : std::filesystem::directory_iterator(CMR_ATTRLOG_CORPUS)) {
    std::string const name = entry.path().filename().string();
    std::string const bytes = contents(entry.path());
    SCOPED_TRACE(name);
    attrlogfuzz::Outcomes outcomes;
    try {
      outcomes = attrlogfuzz::applyToFreshCopies(bytes);
    } catch (std::exception const& e) {
      ADD_FAILURE() << "escaped: " << e.what();
      continue;
    }
    if (name.starts_with("status-")) {
      expectTakenWhole(outcomes.status, outcomes.config, bytes.size());
      ++streams;
    } else if (name.starts_with("config-")) {
      expectTakenWhole(outcomes.config, outcomes.status, bytes.size());
      ++streams;
    }
  }
  ::mountInterfaceAttrLogIs(false);
  EXPECT_GE(streams, 20u) << "the corpus at " << CMR_ATTRLOG_CORPUS << " lacks its streams";
}

}  // namespace
