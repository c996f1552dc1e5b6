#include "liblock.h"

namespace Quorvel::Kvan {

std::recursive_mutex& libraryLock() {
  // Never destroyed: detached save workers may still take it during exit.
  static auto* lock = new std::recursive_mutex();
  return *lock;
}

}  // namespace Quorvel::Kvan
