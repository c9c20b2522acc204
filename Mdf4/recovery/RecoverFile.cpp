// recoverFile: a recovery between named files.
#include <cinttypes>
#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/base/OutputLimit.h"
#include "Mdf4/base/ResultFile.h"
#include "Mdf4/base/System.h"
#include "Mdf4/format/WorkSizes.h"
#include "Mdf4/recovery/Recovery.h"
#include "Mdf4/recovery/VerifyRecovery.h"
#include "tolvex/Mdf4.h"

namespace tolvex {
namespace {

constexpr char kCancelled[] = "cancelled";

// Ends a recovery from wherever it is.
struct Stop : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct BeyondLimit : Stop {
  using Stop::Stop;
};

void stopIfCancelled(const MdfRecoverOptions& options) {
  if (options.cancelled && options.cancelled()) throw Stop(kCancelled);
}

// Reading and writing that ends with a Stop when the recovery is cancelled, or when the file would
// grow beyond `limit` bytes.
class StoppableFile final : public SystemFile {
 public:
  StoppableFile(std::unique_ptr<SystemFile> file, const MdfRecoverOptions& options,
                std::uint64_t limit)
      : file_(std::move(file)), options_(options), limit_(limit) {}

  bool size(std::uint64_t& bytes) override { return file_->size(bytes); }
  ReadResult read(std::uint64_t position, std::span<const WritableBytes> pieces) override {
    stopIfCancelled(options_);
    return file_->read(position, pieces);
  }
  bool write(std::uint64_t position, std::span<const ByteSpan> pieces) override {
    stopIfCancelled(options_);
    std::uint64_t left = position > limit_ ? 0 : limit_ - position;
    for (const ByteSpan& piece : pieces) {
      if (piece.size() > left) {
        throw BeyondLimit(
            formatText("the result would be larger than the limit of %" PRIu64 " bytes", limit_));
      }
      left -= piece.size();
    }
    return file_->write(position, pieces);
  }
  bool close() override { return file_->close(); }
  std::string error() const override { return file_->error(); }

 private:
  const std::unique_ptr<SystemFile> file_;
  const MdfRecoverOptions& options_;
  const std::uint64_t limit_;
};

// Recovers `input` into a file that then takes the name `output`.
MdfRecoveryReport recover(const std::string& input, const std::string& output,
                          const MdfRecoverOptions& options, const WorkSizes& sizes) {
  const auto failed = [](std::string why) {
    MdfRecoveryReport report;
    report.failure = std::move(why);
    return report;
  };
  if (isSameFile(input, output)) return failed("the output is the input");
  std::string error;
  std::unique_ptr<SystemFile> in = openSystemFile(input, OpenMode::Read, error);
  if (in == nullptr) return failed(error);
  std::uint64_t inputBytes = 0;
  if (!in->size(inputBytes)) return failed("its size is unknown");
  ResultFile file;
  if (options.keepExisting) file.keepExisting();
  if (!file.open(output, input)) return failed(output + ": " + file.error());
  std::unique_ptr<SystemFile> out = systemFileOn(file.descriptor(), error);
  if (out == nullptr) return failed(output + ": " + error);
  const std::uint64_t limit = outputLimit(options.maxOutput, inputBytes);
  RecoveryResult result = recoverBetween(
      std::make_unique<StoppableFile>(std::move(in), options, limit),
      std::make_unique<StoppableFile>(std::move(out), options, limit), options, sizes);
  if (!result.report.failure.empty()) return std::move(result.report);
  if (options.verify) {
    bool stopped = false;  // which the check takes for its own failure
    const MdfProgress progress = [&](std::uint64_t done, std::uint64_t total) {
      stopped = true;
      stopIfCancelled(options);
      stopped = false;
      if (options.progress) options.progress(done, total);
    };
    result.report.failure = verifyRecovery(file.currentPath(), result.checksums, progress);
    if (stopped) result.report.failure = kCancelled;
  }
  if (result.report.failure.empty() && !file.publish()) {
    result.report.failure = output + ": " + file.error();
  }
  return std::move(result.report);
}

}  // namespace

MdfRecoveryReport recoverFile(const std::string& input, const std::string& output,
                              const MdfRecoverOptions& options) {
  return recoverFile(input, output, options, WorkSizes{});
}

MdfRecoveryReport recoverFile(const std::string& input, const std::string& output,
                              const MdfRecoverOptions& options, const WorkSizes& sizes) {
  MdfRecoveryReport report;
  try {
    return recover(input, output, options, sizes);
  } catch (const std::bad_alloc&) {
    report.failure = "out of memory";
  } catch (const BeyondLimit& stop) {
    report.failure = stop.what();
    report.beyondLimit = true;
  } catch (const std::exception& unexpected) {
    report.failure = unexpected.what();
  } catch (...) {
    report.failure = "the recovery was broken off";
  }
  return report;
}

}  // namespace tolvex
