// The texts of a dictionary column over a whole stream.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "Mdf4/plain/ArrowExport.h"
#include "tolvex/MdfColumnReader.h"

namespace tolvex::plain {

// Gives each text one number, whichever batch it comes in. A batch has the texts so far, so that
// readers that take each batch by itself are right, and those that keep only the last dictionary.
class StreamDictionary {
 public:
  // Changes the codes of the column to the stream's; where it has no text, to one that there is.
  void renumber(MdfColumn& column);
  // The texts so far, as an array.
  ArrowOwner<ArrowArray> texts() const;

 private:
  struct Texts {
    std::vector<std::int64_t> offsets = {0};
    std::string bytes;
    std::uint64_t count() const { return offsets.size() - 1; }
  };

  void add(const std::vector<std::string>& texts);

  std::unordered_map<std::string, std::int32_t> codes_;
  std::shared_ptr<const Texts> texts_ = std::make_shared<Texts>();  // of batches that are out
};

}  // namespace tolvex::plain
