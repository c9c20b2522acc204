#include "tests/mutation/Structure.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace tolvex::test {
namespace {

constexpr std::uint64_t kHeaderSize = 24;
constexpr std::uint64_t kLinkSize = 8;

}  // namespace

Structure::Structure(const Bytes& file) : file_(file), free_(file.size()) {
  for (std::uint64_t at = 64; at + kHeaderSize <= file.size(); at += 8) {
    if (file[at] != '#' || file[at + 1] != '#') continue;
    std::uint64_t length = 0;
    std::memcpy(&length, &file[at + 8], sizeof length);
    if (length < kHeaderSize || length > file.size() - at) continue;
    add(at);
    at += (length - 1) / 8 * 8;
  }
}

void Structure::add(std::uint64_t block) {
  const std::string_view type(reinterpret_cast<const char*>(&file_[block + 2]), 2);
  std::uint64_t length = 0;
  std::uint64_t links = 0;
  std::memcpy(&length, &file_[block + 8], sizeof length);
  std::memcpy(&links, &file_[block + 16], sizeof links);
  const auto isOneOf = [&](std::string_view types) {
    return types.find(type) != std::string_view::npos;
  };
  const auto set = [&](std::uint64_t start, std::uint64_t end, bool free) {
    std::fill(free_.begin() + static_cast<std::ptrdiff_t>(block + start),
              free_.begin() + static_cast<std::ptrdiff_t>(block + std::min(end, length)), free);
  };
  blocks_.push_back(block);
  if (isOneOf("CC CA")) return;
  const std::uint64_t data = kHeaderSize + links * kLinkSize;
  const bool hasLayout = isOneOf("CG CN");
  set(0, hasLayout ? 16 : kHeaderSize, true);
  set(kHeaderSize, data, true);
  if (type == "CG") set(0, kHeaderSize + kLinkSize, false);  // without it, others' ids say nothing
  if (type == "CG") set(data + 8, data + 16, true);          // the cycle count
  if (type == "DZ") {
    set(data, data + 2, true);       // the type of block
    set(data + 8, data + 24, true);  // both lengths
  }
  if (!hasLayout && !isOneOf("DG DT DV DI SD RD RV RI DZ")) set(data, length, true);
}

bool Structure::keepsMeaning(std::uint64_t position, const Bytes& bytes) const {
  for (std::uint64_t at = position; at < position + bytes.size(); ++at) {
    if (!free_[at]) return false;
  }
  // What leads to another block may mean it.
  for (std::uint64_t word = position / 8 * 8; word < position + bytes.size(); word += 8) {
    Bytes link(8);
    std::copy_n(file_.begin() + static_cast<std::ptrdiff_t>(word),
                std::min<std::size_t>(8, file_.size() - word), link.begin());
    for (std::uint64_t at = word; at < word + 8; ++at) {
      if (at >= position && at < position + bytes.size()) link[at - word] = bytes[at - position];
    }
    Link to = 0;
    std::memcpy(&to, link.data(), sizeof to);
    if (std::binary_search(blocks_.begin(), blocks_.end(), to)) return false;
  }
  return true;
}

}  // namespace tolvex::test
