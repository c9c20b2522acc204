// The shared library as a user has it: public headers and exported symbols alone.
#include <gtest/gtest.h>
#include <tolvex/Mdf4.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "PlainCaller.h"

namespace {

using tolvex::MdfReader;
using tolvex::MdfSigCCInfo;
using tolvex::MdfSigReader;

const std::string kBusLog = TOLVEX_TEST_DATA "/raw-00000005.MF4";
const std::string kSignals = TOLVEX_TEST_DATA "/decoded-00000005.mf4";

TEST(Interface, CopiesAndFramesOutliveTheReaderThatTheyCameFrom) {
  dropDiagnostics();
  std::optional<MdfReader> reader(kBusLog);
  ASSERT_TRUE(reader->open());
  const auto first = reader->getCanMessage();
  MdfReader copy(*reader);
  reader.reset();

  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->CanId(), 9u);
  unsigned following = 0;
  while (copy.getCanMessage()) ++following;
  EXPECT_EQ(following, 5476u);
}

// Needs the exported class's virtual table and type information.
class OwnReader : public MdfSigReader {
 public:
  using MdfSigReader::MdfSigReader;
  std::uint64_t getStopTime() override { return 42; }
};

TEST(Interface, ReadersCanBeDerivedFromAndToldApart) {
  dropDiagnostics();
  const std::unique_ptr<tolvex::MdfBaseReader> reader = std::make_unique<OwnReader>(kSignals);
  ASSERT_TRUE(reader->open());
  EXPECT_EQ(reader->getDGCount(), 9);
  EXPECT_EQ(reader->getStopTime(), 42u);
  EXPECT_NE(dynamic_cast<MdfSigReader*>(reader.get()), nullptr);
  EXPECT_EQ(dynamic_cast<MdfReader*>(reader.get()), nullptr);
}

TEST(Interface, AnExceptionOfTheLibraryIsCaughtByItsStandardType) {
  MdfSigCCInfo channel;
  channel.bitCount = 8;
  channel.flags = 1U << 1;
  double raw = 0;
  EXPECT_THROW(channel.convertBitFieldValueToRaw(1, raw), std::runtime_error);
}

TEST(Interface, ErrorsReachTheCallbackAndDiagnosticsTheHandler) {
  DiagnosticCount count = {};
  countDiagnostics(&count);
  std::vector<std::string> errors;
  MdfSigReader reader("no such file");
  reader.setErrorCallback([&](const std::string& error) { errors.push_back(error); });
  EXPECT_FALSE(reader.open());
  MdfReader(kBusLog).open();
  dropDiagnostics();

  EXPECT_EQ(errors, std::vector<std::string>{"Failed to open MDF4 file: no such file"});
  EXPECT_GT(count.texts, 0);
  EXPECT_EQ(count.unterminated, 0);
}

}  // namespace
