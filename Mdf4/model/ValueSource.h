// Values of variable length, by their offsets.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Mdf4/format/m4DataStream.h"

namespace tolvex {

// Values that lie outside of the records that name them. Not synchronised.
class ValueSource {
 public:
  virtual ~ValueSource() = default;
  // Replaces `out` by the value that a record's offset leads to; false when there is none.
  [[nodiscard]] virtual bool read(std::uint64_t offset, std::vector<std::uint8_t>& out) = 0;
  virtual std::uint64_t size() const = 0;  // bytes of all of them
  // Whether offsets are not to be used: they count values, as records are counted.
  virtual bool isByOrder() const { return false; }

 protected:
  ValueSource() = default;
  ValueSource(const ValueSource&) = default;
  ValueSource& operator=(const ValueSource&) = default;
};

// Those in signal data. Borrows the file.
class SignalValues final : public ValueSource {
 public:
  SignalValues(DirectFile& file, std::shared_ptr<SegmentTable> table)
      : stream_(file, std::move(table)) {}

  [[nodiscard]] bool read(std::uint64_t offset, std::vector<std::uint8_t>& out) override {
    return stream_.readValue(offset, out);
  }
  std::uint64_t size() const override { return stream_.size(); }

 private:
  m4DataStream stream_;
};

}  // namespace tolvex
