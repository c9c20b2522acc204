// Names of files: UTF-8 in the interface and in texts, whatever the system has in its paths.
#pragma once

#include <filesystem>
#include <string>

namespace tolvex {

inline std::filesystem::path pathOf(const std::string& name) {
  return std::u8string(name.begin(), name.end());
}

inline std::string pathText(const std::filesystem::path& path) {
  const std::u8string name = path.u8string();
  return {name.begin(), name.end()};
}

// The folder that holds the file; "." for the current one.
inline std::filesystem::path folderOf(const std::filesystem::path& path) {
  return path.has_parent_path() ? path.parent_path() : ".";
}

}  // namespace tolvex
