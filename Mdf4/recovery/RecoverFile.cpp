// recoverFile: a recovery between named files.
#include <exception>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <utility>

#include "Mdf4/format/System.h"
#include "Mdf4/recovery/Recovery.h"
#include "Mdf4/recovery/VerifyRecovery.h"
#include "Mdf4/recovery/WorkSizes.h"
#include "tolvex/Mdf4.h"

namespace tolvex {
namespace {

namespace fs = std::filesystem;

// A file that is replaced once the result is whole; anything else, a device or a pipe, is written
// to directly.
bool isReplaceable(const std::string& path) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(path, error);
  return status.type() == fs::file_type::not_found || status.type() == fs::file_type::regular;
}

}  // namespace

MdfRecoveryReport recoverFile(const std::string& input, const std::string& output,
                              const MdfRecoverOptions& options) {
  return recoverFile(input, output, options, WorkSizes{});
}

MdfRecoveryReport recoverFile(const std::string& input, const std::string& output,
                              const MdfRecoverOptions& options, const WorkSizes& sizes) {
  MdfRecoveryReport report;
  const bool replace = isReplaceable(output);
  const std::string path = replace ? output + ".recovering" : output;
  std::error_code error;
  try {
    if (fs::equivalent(input, output, error)) {
      report.failure = "the output is the input";
      return report;
    }
    std::string failure;
    std::unique_ptr<SystemFile> in = openSystemFile(input, OpenMode::Read, failure);
    if (in == nullptr) {
      report.failure = failure;
      return report;
    }
    std::unique_ptr<SystemFile> out = openSystemFile(path, OpenMode::Create, failure);
    if (out == nullptr) {
      report.failure = output + ": " + failure;
      return report;
    }
    RecoveryResult result = recoverBetween(std::move(in), std::move(out), options, sizes);
    report = std::move(result.report);
    if (report.failure.empty() && options.verify) {
      report.failure = verifyRecovery(path, result.checksums, options.progress);
    }
    if (report.failure.empty() && replace) {
      fs::rename(path, output, error);
      if (error) report.failure = output + ": " + error.message();
    }
  } catch (const std::bad_alloc&) {
    report.failure = "no memory";
  } catch (const std::exception& unexpected) {
    report.failure = unexpected.what();
  }
  if (!report.failure.empty() && replace) fs::remove(path, error);
  return report;
}

}  // namespace tolvex
