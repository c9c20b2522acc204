// Handles of frames, channels and formulas while allocations fail: each function does all that it
// is for, or nothing.
#include <gtest/gtest.h>

#include <string>

#include "Mdf4/Channel.h"
#include "tests/faults/FailingMemory.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::test {
namespace {

TEST(HandleAllocations, AFrameKeepsItsPayloadOrTakesTheNewOne) {
  forEveryAllocation([](AllocationFault& fault) {
    void* frame = nullptr;
    const Bytes wide(64, 7);
    const Bytes narrow(8, 3);
    std::uint8_t dlc = 0;
    fault.strike([&] {
      frame = MdfCanMessageInit();
      MdfCanMessageSetDataBytes(frame, narrow.data(), 8);
      dlc = MdfCanMessageGetDlc(frame);
      MdfCanMessageSetDataBytes(frame, wide.data(), 64);
    });
    Bytes payload(64);
    payload.resize(MdfCanMessageGetDataBytes(frame, payload.data()));
    EXPECT_EQ(payload.size(), MdfCanMessageGetDataLength(frame));
    EXPECT_TRUE(payload == wide || (payload == narrow && dlc == 8) || payload.empty());
    EXPECT_TRUE(payload == wide || fault.met());
    delete static_cast<MdfCanMessage*>(frame);  // with its payload, unlike the handle's function
  });
}

TEST(HandleAllocations, AFormulaHasATextForEachOfItsEntries) {
  constexpr char kLong[] = "a text that does not fit into a string object itself";
  forEveryAllocation([&](AllocationFault& fault) {
    void* formula = nullptr;
    void* channel = nullptr;
    std::size_t added = 0;
    bool given = false;
    fault.strike([&] {
      formula = allocFormula(8);
      channel = allocChannel();
      for (int i = 0; i < 3; ++i) added += addFormulaParamR2T(formula, i, i, kLong) == 0 ? 1U : 0U;
      setFormulaParamDefault(formula, 0, kLong);
      given = setChannelFormula(channel, formula) == 0;
    });
    if (formula != nullptr) {
      const auto& made = *static_cast<Formula*>(formula);
      EXPECT_EQ(made.texts.size(), added);
      EXPECT_EQ(made.parameters.size(), 2 * added);
      EXPECT_TRUE(fault.met() || made.defaultText == kLong);
    }
    if (channel != nullptr) {
      EXPECT_EQ(static_cast<ChannelInfo*>(channel)->formula != nullptr, given);
    }
    EXPECT_TRUE(fault.met() || (added == 3 && given));
    freeFormula(formula);
    freeChannel(channel);
  });
}

}  // namespace
}  // namespace tolvex::test
