#include "base/liblock.h"

namespace Quorvel::Kvan {

LibraryMutex& libraryMutex() {
  // Never destroyed: detached save workers may still take it during exit.
  static auto* mutex = new LibraryMutex();
  return *mutex;
}

}  // namespace Quorvel::Kvan
