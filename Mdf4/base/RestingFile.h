// A file that need not stay open while nobody reads it.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "Mdf4/base/System.h"

namespace tolvex {

// Opened to be read. Whoever reads it again after a rest finds it as it was, or is refused.
class RestingFile final : public SystemFile {
 public:
  // Null when it cannot be opened; `error` says why.
  static std::unique_ptr<RestingFile> open(const std::string& path, std::string& error);

  // Closes it until it is read next.
  void rest() { file_.reset(); }

  [[nodiscard]] bool size(std::uint64_t& bytes) override;
  [[nodiscard]] ReadResult read(std::uint64_t position,
                                std::span<const WritableBytes> pieces) override;
  [[nodiscard]] bool write(std::uint64_t /*position*/,
                           std::span<const ByteSpan> /*pieces*/) override {
    return false;
  }
  [[nodiscard]] bool close() override { return file_ == nullptr || file_->close(); }
  std::string error() const override { return file_ == nullptr ? "" : file_->error(); }

 private:
  RestingFile(std::string path, std::unique_ptr<SystemFile> file)
      : path_(std::move(path)), file_(std::move(file)) {}

  int wake();

  const std::string path_;
  std::unique_ptr<SystemFile> file_;  // null while it rests
  FileStatus status_;                 // when it was opened first
};

}  // namespace tolvex
