#include <charconv>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <system_error>
#include <vector>

#include "Mdf4/base/Paths.h"
#include "tolvex/MdfColumnReader.h"

namespace tolvex {
namespace {

// N of a name that is made of first, "_N" and last; 0 when it is not.
std::uint64_t partNumber(std::string_view name, std::string_view first, std::string_view last) {
  if (name.size() <= first.size() + last.size() + 1 || !name.starts_with(first) ||
      !name.ends_with(last) || name[first.size()] != '_') {
    return 0;
  }
  name.remove_prefix(first.size() + 1);
  name.remove_suffix(last.size());
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  const bool isNumber = error == std::errc() && end == name.data() + name.size() && name[0] != '0';
  return isNumber ? number : 0;
}

}  // namespace

std::vector<std::string> mdfPartsOf(const std::string& path) {
  const std::filesystem::path whole = pathOf(path);
  const std::string first = pathText(whole.stem());
  const std::string last = pathText(whole.extension());
  std::map<std::uint64_t, std::string> parts;
  std::error_code failed;
  for (std::filesystem::directory_iterator entry(folderOf(whole), failed), end;
       !failed && entry != end; entry.increment(failed)) {
    const std::string name = pathText(entry->path().filename());
    const std::uint64_t number = partNumber(name, first, last);
    if (number != 0) parts[number] = pathText(whole.parent_path() / entry->path().filename());
  }
  std::vector<std::string> paths = {path};
  for (const auto& [number, part] : parts) paths.push_back(part);
  return paths;
}

}  // namespace tolvex
