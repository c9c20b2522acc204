#include "Mdf4/Mdf4File.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "Mdf4/Blocks.h"
#include "Mdf4/base/Diagnostics.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kNanosecondsPerMicrosecond = 1000;
constexpr std::uint64_t kTicksPerMicrosecond = 10;

template <std::size_t Size>
void fillPadded(char (&field)[Size], std::string_view text) {
  std::fill_n(field, Size, ' ');
  std::copy_n(text.begin(), std::min(text.size(), Size), field);
}

IdBlock identification(const std::string& programId, std::uint32_t version) {
  IdBlock id = {};
  fillPadded(id.id_file, "MDF");
  fillPadded(id.id_vers, formatText("%u.%02u", version / 100, version % 100));
  fillPadded(id.id_prog, programId.empty() ? "tolvex" : programId);
  id.id_ver = static_cast<std::uint16_t>(version);
  return id;
}

}  // namespace

bool HeaderBlock::append(const std::shared_ptr<CustomDGBlock>& group) {
  m4Block& previous = lastGroup_ != nullptr ? static_cast<m4Block&>(*lastGroup_) : *this;
  const std::size_t next =
      lastGroup_ != nullptr ? std::size_t{link::dg_dg_next} : std::size_t{link::hd_dg_first};
  if (!writeLink(previous, next, group->position())) return false;
  lastGroup_ = group;
  return true;
}

std::shared_ptr<CustomCGBlock> CustomDGBlock::addChannelGroup() {
  auto group = std::make_shared<CustomCGBlock>();
  if (group->save(file_, kSaveAll) == 0) return nullptr;
  m4Block& previous = lastGroup_ != nullptr ? static_cast<m4Block&>(*lastGroup_) : *this;
  const std::size_t next =
      lastGroup_ != nullptr ? std::size_t{link::cg_cg_next} : std::size_t{link::dg_cg_first};
  if (!writeLink(previous, next, group->position())) return nullptr;
  lastGroup_ = group;
  return group;
}

Mdf4File::~Mdf4File() {
  Mdf4File::Close();
}

bool Mdf4File::create(const FileOpener& open, const std::string& path, const std::string& programId,
                      std::uint32_t version, std::uint64_t startTimeUs) {
  DirectFile::Close();  // it may be this path that it holds
  const IdBlock id = identification(programId, version);
  std::unique_ptr<SystemFile> file = open(path, OpenMode::Create, error_);
  if (file == nullptr || !attach(std::move(file))) return false;
  header_.hd_start_time_ns =
      (startTimeUs != 0 ? startTimeUs : systemTicks() / kTicksPerMicrosecond) *
      kNanosecondsPerMicrosecond;
  if (WriteAt(0, sizeof id, &id) && header_.save(this, m4Block::kSaveAll) == kHeaderBlockPosition) {
    return true;
  }
  error_ = writeError();
  DirectFile::Close();
  return false;
}

std::shared_ptr<CustomDGBlock> Mdf4File::addDataGroup() {
  auto group = std::make_shared<CustomDGBlock>();
  return group->save(this, m4Block::kSaveAll) != 0 ? std::move(group) : nullptr;
}

bool Mdf4File::setStartTime(std::uint64_t startTimeUs) {
  header_.hd_start_time_ns = startTimeUs * kNanosecondsPerMicrosecond;
  header_.hd_tz_offset_min = 0;
  header_.hd_dst_offset_min = 0;
  header_.hd_time_flags = 0;
  return header_.save(nullptr, m4Block::kSaveAll) != 0;
}

bool Mdf4File::Close() {
  if (!isOpen()) return true;
  const bool written = header_.save(nullptr, m4Block::kSaveAll) != 0;
  return DirectFile::Close() && written;
}

}  // namespace tolvex
