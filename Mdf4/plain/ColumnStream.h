// Columns of a group as a stream of Arrow record batches.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Mdf4/plain/ArrowStream.h"
#include "Mdf4/plain/OpenRecording.h"
#include "Mdf4/plain/StreamDictionary.h"

namespace tolvex::plain {

// A column of the stream.
struct StreamColumn {
  enum class Kind : std::uint8_t {
    Seconds,      // the time of each row
    Nanoseconds,  // likewise
    Values,       // of a channel
    Numbers,      // of a channel whose values are texts or numbers: these
    Nulls,        // of a channel that has no values
  };

  Kind kind = Kind::Values;
  std::string name;
  const MdfColumnChannel* channel = nullptr;
  MdfColumnType type = MdfColumnType::None;
  std::size_t source = 0;  // which of the columns read it is, in order
};

// What a stream consists of.
struct StreamPlan {
  std::int32_t group = -1;
  std::vector<std::int32_t> channels;  // to be read
  std::vector<StreamColumn> columns;
  std::string leftOut;  // channels without values, and why: a line each
  std::uint64_t first = 0;
  std::uint64_t end = 0;  // behind the last row
  std::uint64_t batchRows = 0;
  MdfReadOptions options;
};

// False, with the reader's error, for options that make no sense.
[[nodiscard]] bool planStream(tolvex_reader& reader, std::int32_t group,
                              const tolvex_stream_options& options, StreamPlan& plan,
                              tolvex_status& status);

// Shares the recording.
class ColumnStream final : public ArrowSource {
 public:
  ColumnStream(std::shared_ptr<OpenRecording> recording, StreamPlan plan);

  ArrowOwner<ArrowSchema> schema() const override;
  tolvex_status next(ArrowOwner<ArrowArray>& batch, LastError& error) override;

 private:
  struct Batch {
    std::uint64_t rows = 0;
    std::vector<std::shared_ptr<MdfColumn>> columns;
    std::shared_ptr<double[]> seconds;
    std::shared_ptr<std::int64_t[]> nanoseconds;
  };

  tolvex_status read(std::uint64_t count, Batch& batch, LastError& error);
  ArrowOwner<ArrowArray> arrayOf(const StreamColumn& column, const Batch& batch);
  ArrowOwner<ArrowArray> valuesOf(const StreamColumn& column,
                                  const std::shared_ptr<MdfColumn>& read);

  std::shared_ptr<OpenRecording> recording_;
  StreamPlan plan_;
  std::vector<StreamDictionary> dictionaries_;  // by column read
  std::uint64_t position_;
};

}  // namespace tolvex::plain
