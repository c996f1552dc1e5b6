// Small helpers shared by the library and offered to host programs, one
// header per topic; this one includes them all:
//   zelta/text.h       strings and numbers
//   zelta/system.h     files, local time, processes
//   zelta/addresses.h  the logical address, MAC and IPv4 addresses, network interfaces
//   zelta/encoding.h   the escaped string encoding, Base64, string encryption
//   zelta/delayed.h    DelayedExecution, a debounce helper
//
// Thread safety: the free functions hold no state and may be called from any
// thread. A DelayedExecution object may be triggered from any thread.
#ifndef ZELTA_COMMON_H_
#define ZELTA_COMMON_H_

#include "zelta/addresses.h"
#include "zelta/delayed.h"
#include "zelta/encoding.h"
#include "zelta/system.h"
#include "zelta/text.h"

#endif  // ZELTA_COMMON_H_
