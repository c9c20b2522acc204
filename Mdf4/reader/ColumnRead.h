// Reading columns of a group: from several files, by several threads.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "Mdf4/reader/ColumnAssembly.h"
#include "Mdf4/reader/ColumnFile.h"

namespace tolvex {

// Records of a group in one of the files.
struct ColumnPart {
  ColumnFile* file = nullptr;
  const ModelGroup* group = nullptr;
  std::uint64_t first = 0;
  std::uint64_t count = 0;
};

// A column that is wanted of them.
struct WantedColumn {
  std::int32_t channel = -1;
  ColumnForm form = ColumnForm::Physical;
  ColumnAssembly::Memory memory = {};
};

// The columns of all parts, which have the same channels, behind each other. With more than one
// thread where it pays. Throws std::bad_alloc.
std::vector<MdfColumn> readColumns(std::span<const ColumnPart> parts,
                                   std::span<const WantedColumn> wanted, unsigned threads);

}  // namespace tolvex
