// Makes a stream of the Arrow C stream interface of whatever gives record batches.
#pragma once

#include <memory>

#include "Mdf4/plain/ArrowExport.h"
#include "Mdf4/plain/Plain.h"

namespace tolvex::plain {

// What a stream goes along. Both functions may throw; other failures are told by `error`.
class ArrowSource {
 public:
  virtual ~ArrowSource() = default;
  virtual ArrowOwner<ArrowSchema> schema() const = 0;
  // The next record batch, without a release callback when there is none. Is not called again once
  // it has failed.
  virtual tolvex_status next(ArrowOwner<ArrowArray>& batch, LastError& error) = 0;

 protected:
  ArrowSource() = default;
  ArrowSource(const ArrowSource&) = default;
  ArrowSource& operator=(const ArrowSource&) = default;
};

ArrowArrayStream makeStream(std::unique_ptr<ArrowSource> source);

}  // namespace tolvex::plain
