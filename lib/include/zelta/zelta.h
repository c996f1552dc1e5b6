// Everything libzelta offers, in one include. The MIB generator has a header
// and a library of its own: zelta/mibgen.h, zelta::mibgen.
#ifndef ZELTA_ZELTA_H_
#define ZELTA_ZELTA_H_

#include "zelta/common.h"
#include "zelta/crypto.h"
#include "zelta/logging.h"
#include "zelta/mibtypes.h"
#include "zelta/param.h"
#include "zelta/parammanager.h"
#include "zelta/snmpagent.h"
#include "zelta/snmpclient.h"
#include "zelta/tabledef.h"

#endif  // ZELTA_ZELTA_H_
