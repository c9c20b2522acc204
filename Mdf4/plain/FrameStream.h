// CAN frames as a stream of Arrow record batches.
#pragma once

#include <cstddef>

#include "Mdf4/plain/ArrowStream.h"
#include "tolvex/MdfFrameReader.h"

namespace tolvex::plain {

// Owns the reader, from which the frames are selected.
class FrameStream final : public ArrowSource {
 public:
  FrameStream(MdfFrameReader reader, std::size_t batchRows)
      : reader_(std::move(reader)), batchRows_(batchRows) {}

  ArrowOwner<ArrowSchema> schema() const override;
  tolvex_status next(ArrowOwner<ArrowArray>& batch, LastError& error) override;

 private:
  MdfFrameReader reader_;
  std::size_t batchRows_;
};

}  // namespace tolvex::plain
