#include "base/atomicfile.h"

#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

namespace Quorvel::Kvan::internal {

std::string directoryOf(const std::string& path) {
  std::vector<char> copy(path.begin(), path.end());
  copy.push_back('\0');
  return dirname(copy.data());
}

bool replaceFile(const std::string& path, const std::string& text) {
  std::string temporary = path + kTempInfix + "XXXXXX";
  const int fd = mkstemp(temporary.data());
  if (fd < 0) return false;
  FILE* file = fdopen(fd, "w");
  // mkstemp makes the file private; the file it replaces was not.
  if (file != nullptr) fchmod(fd, 0644);
  bool ok = file != nullptr && (text.empty() || fwrite(text.data(), 1, text.size(), file) == text.size());
  ok = ok && fflush(file) == 0 && fsync(fd) == 0;
  ok = (file != nullptr ? fclose(file) == 0 : close(fd) == 0) && ok;
  ok = ok && rename(temporary.c_str(), path.c_str()) == 0;
  if (!ok) {
    const int why = errno;
    unlink(temporary.c_str());
    errno = why;
    return false;
  }
  // The rename itself reaches the disk with the directory.
  const int dir = open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY);
  if (dir >= 0) {
    fsync(dir);
    close(dir);
  }
  return true;
}

}  // namespace Quorvel::Kvan::internal
