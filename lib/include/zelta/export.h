// Symbol visibility and the library's always-on assertion.
//
// The library is built with hidden visibility: only what carries ZELTA_EXPORT
// is part of the shared object's interface.
#ifndef ZELTA_EXPORT_H_
#define ZELTA_EXPORT_H_

#define ZELTA_EXPORT __attribute__((visibility("default")))
// For a member of an exported class that only the library itself calls: left
// out of the shared object's symbol table, which the device's flash holds.
#define ZELTA_LOCAL __attribute__((visibility("hidden")))

namespace Quorvel::Kvan {

// Reports a failed assertion as the C library's assert() does (program name,
// file, line, function and the expression text on standard error) and aborts.
[[noreturn]] ZELTA_EXPORT void assertionFailed(const char* text, const char* file, unsigned int line,
                                               const char* function) noexcept;

}  // namespace Quorvel::Kvan

// Programming errors abort the process with a fixed expression text, whatever
// NDEBUG says: the texts are part of the library's behaviour.
#define ZELTA_ASSERT(cond, text) \
  ((cond) ? static_cast<void>(0) : ::Quorvel::Kvan::assertionFailed(text, __FILE__, __LINE__, __PRETTY_FUNCTION__))

#endif  // ZELTA_EXPORT_H_
