// Runs a fuzz target over every file of the given directories (or files), the
// way libFuzzer replays a corpus, for builds without libFuzzer.

// On 32-bit targets the plain stat() and readdir() fail with EOVERFLOW on file
// systems with 64-bit inode numbers or directory offsets.
#define _FILE_OFFSET_BITS 64

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int runFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    struct stat info {};
    if (stat(argv[i], &info) != 0) {
      fprintf(stderr, "replay: cannot read %s\n", argv[i]);
      return 1;
    }
    if (!S_ISDIR(info.st_mode)) {
      count += runFile(argv[i]);
      continue;
    }
    DIR* dir = opendir(argv[i]);
    while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") count += runFile(std::string(argv[i]) + "/" + name);
    }
    if (dir != nullptr) closedir(dir);
  }
  printf("replay: %d inputs\n", count);
  return count > 0 ? 0 : 1;
}
