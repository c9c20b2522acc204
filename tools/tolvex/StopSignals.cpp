#include "StopSignals.h"

#include "Command.h"

namespace tolvex {

int runStoppable(const std::function<int()>& command) {
  int code = kDone;
  int signal = 0;
  {
    const StopSignals signals(StopSignals::Calls::Interrupted);
    code = command();
    signal = StopSignals::received();
  }
  if (signal != 0 && code == kFailed) {
    endBySignal(signal);
  }
  return code;
}

}  // namespace tolvex
