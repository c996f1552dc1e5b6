// The library's assertion: the C library's own report, so that the texts read
// as those of assert() always have, also in builds with NDEBUG.
#include "zelta/export.h"

// glibc's reporter behind assert(); <assert.h> declares it only without NDEBUG.
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line, const char* function) noexcept
    __attribute__((__noreturn__));

namespace Quorvel::Kvan {

void assertionFailed(const char* text, const char* file, unsigned int line, const char* function) noexcept {
  __assert_fail(text, file, line, function);
}

}  // namespace Quorvel::Kvan
