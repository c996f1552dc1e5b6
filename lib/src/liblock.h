// The library's one lock. It keeps the host's threads, the SNMP agent thread
// and the group save workers apart wherever they meet: parameter values, the
// agent's tables and Net-SNMP's global state. Recursive, because validators,
// fillers and post-set hooks run with it held and may write parameters.
#ifndef ZELTA_SRC_LIBLOCK_H_
#define ZELTA_SRC_LIBLOCK_H_

#include <mutex>

namespace Quorvel::Kvan {

std::recursive_mutex& libraryLock();

}  // namespace Quorvel::Kvan

#endif  // ZELTA_SRC_LIBLOCK_H_
