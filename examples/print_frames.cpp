// Prints the CAN frames of a bus log in time order.
//
//   print_frames FILE
#include <tolvex/Mdf4.h>
#include <tolvex/MdfEngine.h>

#include <cstdio>
#include <memory>
#include <variant>

namespace {

void print(double seconds, const tolvex::MdfCanMessage& message) {
  std::printf("%12.6f s  channel %d  %08X ", seconds, message.BusChannel(), message.CanId());
  for (const unsigned byte : message.DataBytes()) std::printf(" %02X", byte);
  std::printf("\n");
}

void print(double seconds, const tolvex::MdfCanError& error) {
  std::printf("%12.6f s  channel %d  error\n", seconds, error.BusChannel());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: print_frames FILE\n");
    return 2;
  }
  setDiagnosticHandler(nullptr, nullptr);  // the library's own texts would mix with the results

  tolvex::MdfReader reader(argv[1]);
  reader.setLoggerRules(true);  // frames as the logger meant them: 3 bytes stay 3 bytes
  if (!reader.open()) {
    std::fprintf(stderr, "print_frames: %s\n", reader.getLastError().c_str());
    return 1;
  }

  // A frame is either a message or an error; an empty message pointer ends the recording.
  for (unsigned long count = 0;; ++count) {
    const tolvex::MdfFrame frame = reader.getNext();
    const auto nanoseconds = tolvex::MdfReader::getSignedTimestampNsFromVariant(frame);
    const double seconds = 1e-9 * static_cast<double>(nanoseconds);
    const auto* message = std::get_if<std::shared_ptr<tolvex::MdfCanMessage>>(&frame);
    const auto* error = std::get_if<std::shared_ptr<tolvex::MdfCanError>>(&frame);
    if (message != nullptr && *message) {
      print(seconds, **message);
    } else if (error != nullptr && *error) {
      print(seconds, **error);
    } else {
      std::printf("%lu frames\n", count);
      return 0;
    }
  }
}
