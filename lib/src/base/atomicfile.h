// Files replaced whole, so that a power cut leaves either the old or the new
// file: the text goes to a temporary beside the file, is synced, and is
// renamed over it. Group files (their crash-safe save) and MIB modules are
// written so.
#ifndef ZELTA_SRC_BASE_ATOMICFILE_H_
#define ZELTA_SRC_BASE_ATOMICFILE_H_

#include <cstddef>
#include <string>

namespace Quorvel::Kvan::internal {

// Temporaries are "<file>.zelta-tmp.XXXXXX", a name no group file and no
// host file is expected to have; a power cut may leave one behind.
constexpr char kTempInfix[] = ".zelta-tmp.";
constexpr size_t kTempSuffixLength = 6;  // what mkstemp puts in place of XXXXXX

// The directory part of `path`, as dirname(3) gives it.
std::string directoryOf(const std::string& path);

// Replaces the file at `path` by `text`, readable by everyone. False, with
// errno telling why and no temporary left, when it cannot.
bool replaceFile(const std::string& path, const std::string& text);

}  // namespace Quorvel::Kvan::internal

#endif  // ZELTA_SRC_BASE_ATOMICFILE_H_
