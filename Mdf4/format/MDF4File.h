// An MDF 4 file: identification and header block.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/m4Block.h"

namespace tolvex {

class MDF4File : public DirectFile {
 public:
  // Opens the file, checks its identification and loads the header block. False, with the file
  // closed, when one of these fails; error says what, where, expected and found.
  [[nodiscard]] bool Open(const std::string& path, bool update);
  bool Close() override;

  // For later openings: whether files are opened that their logger did not come to finalize.
  void acceptUnfinished(bool on) { acceptsUnfinished_ = on; }
  bool isUnfinished() const;

  const std::string& error() const { return error_; }
  const IdBlock& id() const { return id_; }
  std::uint16_t version() const { return id_.id_ver; }
  // Null while no file is open.
  const M4HDBlock* header() const { return header_.get(); }

 private:
  bool readIdentification();
  bool readHeader();

  bool acceptsUnfinished_ = false;
  IdBlock id_ = {};
  std::unique_ptr<M4HDBlock> header_;
  std::string error_;
};

}  // namespace tolvex
