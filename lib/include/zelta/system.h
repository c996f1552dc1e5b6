// Helpers for the host system: whole files and their lines, the local time
// as text, and the output of a shell command.
//
// Thread safety: the functions hold no state and may be called from any
// thread.
#ifndef ZELTA_SYSTEM_H_
#define ZELTA_SYSTEM_H_

#include <string>
#include <vector>

#include "zelta/export.h"

namespace Quorvel::Kvan {
namespace Common {

// ---- Files

ZELTA_EXPORT bool fileExists(const std::string& path);
// The whole file, or "" when it cannot be opened.
ZELTA_EXPORT std::string getFileContents(const std::string& path);
// The lines of a text file without their line ends. A last line without a
// newline is not returned. Stops at the first line of 512 characters or more,
// and returns nothing for a file that cannot be read.
ZELTA_EXPORT std::vector<std::string> getFileLines(std::string path);

// ---- Time

// Local time as "%Y-%m-%d.%X".
ZELTA_EXPORT std::string timeToString(const long& t);
ZELTA_EXPORT std::string now();

// ---- Processes

// Runs `command` through popen and appends its standard output to `output`.
// False only when the pipe cannot be opened; the exit status is not examined.
ZELTA_EXPORT bool executeProgram(const std::string& command, std::string& output);
// The command's output, or "[ERROR]" when the pipe cannot be opened.
ZELTA_EXPORT std::string executeProgram(const std::string& command);

}  // namespace Common
}  // namespace Quorvel::Kvan

#endif  // ZELTA_SYSTEM_H_
