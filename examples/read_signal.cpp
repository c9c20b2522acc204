// Prints one signal's samples: time in seconds and physical value, or text, per line.
//
//   read_signal FILE CHANNEL
#include <tolvex/Mdf4.h>
#include <tolvex/MdfEngine.h>

#include <iostream>
#include <string>

namespace {

// Where the first channel of that name lies; all indices -1 when the file has none.
tolvex::MdfSigAttr findChannel(tolvex::MdfSigReader& reader, const std::string& name) {
  for (int dg = 0, dgCount = reader.getDGCount(); dg < dgCount; ++dg) {
    for (int cg = 0, cgCount = reader.getCGCount(dg); cg < cgCount; ++cg) {
      for (int cn = 0, cnCount = reader.getCNCount(dg, cg); cn < cnCount; ++cn) {
        if (reader.getCNName(dg, cg, cn) == name) return reader.getSigAttr(dg, cg, cn);
      }
    }
  }
  return {};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: read_signal FILE CHANNEL\n";
    return 2;
  }
  setDiagnosticHandler(nullptr, nullptr);  // the library's own texts would mix with the results

  tolvex::MdfSigReader reader(argv[1]);
  if (!reader.open()) {
    std::cerr << "read_signal: " << reader.getLastError() << '\n';
    return 1;
  }

  // What turns a record's bytes into values: one description for the signal, one for its time.
  const tolvex::MdfSigAttr at = findChannel(reader, argv[2]);
  tolvex::MdfSigCCInfo signal;
  tolvex::MdfSigCCInfo time;
  if (!reader.getCCInfo(at.dgIndex, at.cgIndex, at.cnIndex, signal) ||
      !reader.getTimeCCInfo(at.dgIndex, at.cgIndex, time)) {
    std::cerr << "read_signal: no channel " << argv[2] << " with a time\n";
    return 1;
  }

  std::cout.precision(12);
  while (const auto record = reader.readSignalData(at.dgIndex, at.cgIndex)) {
    double seconds = 0;
    double value = 0;
    std::string text;
    std::string unused;
    if (!time.convertToPhysical(record->data, seconds) ||
        !signal.convertToPhysical(record->data, value, text)) {
      continue;  // an invalid sample
    }
    std::cout << seconds << ' ';
    if (text.empty()) {
      std::cout << value << ' ' << signal.unit << '\n';
    } else {
      std::cout << text << '\n';
    }
  }
  return 0;
}
