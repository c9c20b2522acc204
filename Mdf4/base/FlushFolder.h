// Names of files that outlive a loss of power.
#pragma once

#include <filesystem>

namespace tolvex {

// Has the names in a folder on the disk. False, with errno, when that fails. A folder that cannot
// be read, or of a file system that does not know this, is left to the system.
bool flushFolder(const std::filesystem::path& folder);

}  // namespace tolvex
