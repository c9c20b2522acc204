// Between a block's record and the bytes of its data section.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "Mdf4/base/Bytes.h"

namespace tolvex {

// The record at the front of a block's data; 0 where the data are shorter.
template <class Record>
Record recordOf(const std::vector<std::uint8_t>& data) {
  Record record = {};
  std::memcpy(&record, data.data(), std::min(sizeof record, data.size()));
  return record;
}

template <class Record>
std::vector<std::uint8_t> dataOf(const Record& record) {
  const ByteSpan bytes = bytesOf(record);
  return {bytes.begin(), bytes.end()};
}

}  // namespace tolvex
