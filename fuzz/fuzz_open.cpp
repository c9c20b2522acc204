// Opens the input with both readers and asks for everything that a listing of it shows.
#include <climits>

#include "fuzz/FuzzInput.h"
#include "tolvex/Mdf4.h"

namespace tolvex::fuzz {
namespace {

constexpr std::uint64_t kSmallestBlock = 24;

void listChannel(MdfSigReader& reader, int dg, int cg, int cn) {
  const MdfSigAttr attributes = reader.getSigAttr(dg, cg, cn);
  require(reader.isValidSig(dg, cg, cn), "a channel that is counted exists");
  require(attributes.name == reader.getCNName(dg, cg, cn), "a channel has one name");
  reader.isDataType(dg, cg, cn);
  MdfSigCCInfo info;
  require(reader.getCCInfo(dg, cg, cn, info), "a channel that is counted has a description");
  require(info.values.size() <= info.valueCount && info.texts.size() <= info.textCount,
          "a conversion holds no more than it states");
  info.getConversionTypeString();
  info.getPrecisionString();
}

// What both readers list, and the channels where `signals` is given.
void listTree(MdfBaseReader& reader, MdfSigReader* signals) {
  std::uint64_t blocks = 0;
  for (int dg = 0, dgs = reader.getDGCount(); dg < dgs; ++dg, ++blocks) {
    for (int cg = 0, cgs = reader.getCGCount(dg); cg < cgs; ++cg, ++blocks) {
      const int channels = reader.getCNCount(dg, cg);
      blocks += static_cast<std::uint64_t>(channels);
      MdfGroupInfo group;
      require(reader.getGroupInfo(dg, cg, group), "a group that is counted can be described");
      require(group.name == reader.getCGName(dg, cg), "a group has one name");
      for (int cn = 0; cn < channels && signals != nullptr; ++cn) {
        listChannel(*signals, dg, cg, cn);
      }
      MdfSigCCInfo time;
      if (signals != nullptr) signals->getTimeCCInfo(dg, cg, time);
    }
  }
  require(blocks <= reader.getFileInfo().size / kSmallestBlock, "each block is listed once");
  require(reader.getProblems().size() <= 100, "the first 100 problems are kept");
}

void askForWhatIsNotThere(MdfSigReader& reader) {
  for (const int index : {-1, reader.getDGCount(), INT_MAX, INT_MIN}) {
    MdfGroupInfo group;
    MdfSigCCInfo info;
    require(!reader.getGroupInfo(index, 0, group), "there is no such group");
    require(!reader.isValidSig(index, 0, 0), "there is no such channel");
    require(!reader.getCCInfo(0, 0, index < 0 ? index : INT_MAX, info), "there is no such channel");
    require(reader.getSigAttr(index, 0, 0).cnIndex == -1, "there is no such channel");
    require(reader.getCGName(index, index).empty(), "what does not exist has no name");
  }
}

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex;
  using namespace tolvex::fuzz;
  const ByteSpan input(data, size);
  Numbers steering = steeringOf(input);
  const bool twice = steering.flag();
  const bool closed = steering.flag();
  const MemoryFile file(input);

  MdfSigReader signals(file.path());
  const bool opened = signals.open();
  require(opened == signals.getLastError().empty(), "a failure has a reason");
  MdfReader frames(file.path());
  require(frames.open() == opened, "both readers open the same files");
  if (closed) signals.close();
  listTree(signals, &signals);
  listTree(frames, nullptr);
  frames.getCanCount();
  frames.getBusLogGroups();
  frames.getStartTime();
  require(signals.getStartTime() == frames.getStartTime(), "a file has one start");
  if (twice) {
    const int groups = signals.getDGCount();
    require(signals.open() == opened, "a file opens again");
    require(signals.getDGCount() == groups, "opening again finds the same groups");
    listTree(signals, &signals);
  }
  askForWhatIsNotThere(signals);
  return 0;
}
