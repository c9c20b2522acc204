#include "Mdf4/base/FlushFolder.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace tolvex {

bool flushFolder(const std::filesystem::path& folder) {
  const int descriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return true;
  const bool flushed = ::fsync(descriptor) == 0 || errno == EINVAL;
  const int error = errno;
  ::close(descriptor);
  errno = error;
  return flushed;
}

}  // namespace tolvex
