// Lists what a file holds: its groups, and each group's channels with unit and size.
//
//   list_file FILE
#include <tolvex/Mdf4.h>
#include <tolvex/MdfEngine.h>

#include <iostream>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: list_file FILE\n";
    return 2;
  }
  setDiagnosticHandler(nullptr, nullptr);  // the library's own texts would mix with the results

  tolvex::MdfSigReader reader(argv[1]);
  if (!reader.open()) {
    std::cerr << "list_file: " << reader.getLastError() << '\n';
    return 1;
  }

  // A file is a list of data groups (dg), each of channel groups (cg), each of channels (cn).
  for (int dg = 0, dgCount = reader.getDGCount(); dg < dgCount; ++dg) {
    for (int cg = 0, cgCount = reader.getCGCount(dg); cg < cgCount; ++cg) {
      std::cout << "group " << dg << "/" << cg << " \"" << reader.getCGName(dg, cg) << "\", "
                << reader.getRecordCount(dg, cg) << " records\n";
      for (int cn = 0, cnCount = reader.getCNCount(dg, cg); cn < cnCount; ++cn) {
        tolvex::MdfSigCCInfo channel;
        if (!reader.getCCInfo(dg, cg, cn, channel)) continue;
        std::cout << "  " << channel.name << " [" << channel.unit << "], "
                  << reader.getSigAttr(dg, cg, cn).bitCount << " bits, "
                  << channel.getConversionTypeString() << '\n';
      }
    }
  }
  return 0;
}
