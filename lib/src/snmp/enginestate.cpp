// The engine state file and how its identity reaches Net-SNMP.
#include "snmp/snmpinternal.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>

#include "base/atomicfile.h"
#include "snmp/enginestate.h"
#include "zelta/logging.h"

namespace Quorvel::Kvan::SNMP {

namespace {

// RFC 3411: an engine ID has 5 to 32 bytes.
constexpr size_t kMinEngineIdLength = 5;
constexpr size_t kMaxEngineIdLength = 32;
// A state file is two short lines; anything much longer is not one.
constexpr size_t kMaxStateFileSize = 256;

// The first bytes of the engine IDs Net-SNMP builds: enterprise 8072 with the
// top bit set, then the format (4 a text, 0x80 random).
const char kEnginePrefix[] = "\x80\x00\x1f\x88";

std::string toHex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string text = "0x";
  for (unsigned char byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "engineID 0x<hex>\nengineBoots <n>\n" and nothing else.
bool parseState(const std::string& text, std::string& engineId, long& boots) {
  const std::string idKey = "engineID 0x", bootsKey = "engineBoots ";
  if (text.compare(0, idKey.size(), idKey) != 0) return false;
  size_t at = idKey.size();
  const size_t idEnd = text.find('\n', at);
  if (idEnd == std::string::npos || (idEnd - at) % 2 != 0) return false;
  engineId.clear();
  for (; at < idEnd; at += 2) {
    const int high = hexDigit(text[at]), low = hexDigit(text[at + 1]);
    if (high < 0 || low < 0) return false;
    engineId += static_cast<char>(high * 16 + low);
  }
  if (engineId.size() < kMinEngineIdLength || engineId.size() > kMaxEngineIdLength) return false;
  at = idEnd + 1;
  if (text.compare(at, bootsKey.size(), bootsKey) != 0) return false;
  at += bootsKey.size();
  // A line cut short by a crash has no newline: the count may be cut too.
  const size_t bootsEnd = text.find('\n', at);
  if (bootsEnd == std::string::npos || bootsEnd + 1 != text.size() || bootsEnd == at || bootsEnd - at > 10)
    return false;
  long long count = 0;
  for (; at < bootsEnd; ++at) {
    if (text[at] < '0' || text[at] > '9') return false;
    count = count * 10 + (text[at] - '0');
  }
  if (count < 1 || count > kMaxEngineBoots) return false;
  boots = static_cast<long>(count);
  return true;
}

// The whole file, up to kMaxStateFileSize + 1 bytes; false with errno set
// when it cannot be read.
bool readBounded(const std::string& path, std::string& out) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  char buffer[kMaxStateFileSize + 1];
  const size_t length = fread(buffer, 1, sizeof buffer, file);
  const bool failed = ferror(file) != 0;
  const int why = errno;
  fclose(file);
  if (failed) {
    errno = why != 0 ? why : EIO;
    return false;
  }
  out.assign(buffer, length);
  return true;
}

// Keeps Net-SNMP's engine-time wrap check from counting a boot of its own
// when an agent starts again in the same process: the check compares with
// the engine time of the previous run, which is larger than a fresh one.
// Asking for the time once before the configured boots are applied (they
// come with the normal configuration, after this) resets what it compares
// with.
int resetEngineTimeWatch(int, int, void*, void*) {
  snmpv3_local_snmpEngineTime();
  return 0;
}

}  // namespace

std::string randomEngineId() {
  // Net-SNMP's own random engine ID is not to be had once a start used
  // another kind: it remembers the kind from one start to the next.
  std::random_device random;
  std::string id(kEnginePrefix, 4);
  id += '\x80';
  for (int i = 0; i < 4; ++i) id += static_cast<char>(random() & 0xff);
  const auto now = static_cast<uint32_t>(time(nullptr));
  id.append(reinterpret_cast<const char*>(&now), sizeof now);
  return id;
}

EngineIdentity startFromStateFile(const std::string& path, const std::string& fixedIdText) {
  EngineIdentity next, fresh;
  fresh.engineId = randomEngineId();
  std::string text, storedId;
  long storedBoots = 0;
  if (readBounded(path, text)) {
    if (!parseState(text, storedId, storedBoots)) {
      Log["libzelta"].append(ERROR,
                             "AgentEngine: cannot read the engine state file %s: it holds no engine ID and boots "
                             "count; this start takes a new random engine ID and leaves the file as it is\n",
                             path.c_str());
      return fresh;
    }
    next.boots = storedBoots < kMaxEngineBoots ? storedBoots + 1 : kMaxEngineBoots;
  } else if (errno != ENOENT) {
    Log["libzelta"].append(ERROR,
                           "AgentEngine: cannot read the engine state file %s: %s; this start takes a new random "
                           "engine ID and leaves the file as it is\n",
                           path.c_str(), strerror(errno));
    return fresh;
  }
  // Built as Net-SNMP builds it from an engineID line, cut to the longest
  // engine ID there is.
  if (!fixedIdText.empty())
    next.engineId = (std::string(kEnginePrefix, 4) + '\x04' + fixedIdText).substr(0, kMaxEngineIdLength);
  else if (!storedId.empty())
    next.engineId = storedId;
  else
    next.engineId = fresh.engineId;

  if (!Kvan::internal::replaceFile(
          path, "engineID " + toHex(next.engineId) + "\nengineBoots " + std::to_string(next.boots) + "\n")) {
    Log["libzelta"].append(ERROR,
                           "AgentEngine: cannot write the engine state file %s: %s; this start takes a new random "
                           "engine ID\n",
                           path.c_str(), strerror(errno));
    return fresh;
  }
  if (next.boots == kMaxEngineBoots)
    Log["libzelta"].append(ERROR,
                           "AgentEngine: snmpEngineBoots has reached %ld in %s: every SNMPv3 request is refused "
                           "until the engine ID changes\n",
                           kMaxEngineBoots, path.c_str());
  return next;
}

void configureEngineIdentity(const EngineIdentity& identity) {
  std::vector<std::string> lines;
  if (!identity.engineId.empty()) {
    // Net-SNMP keeps the configured boots only when the engine ID is the
    // one it "ran under before", and adds one to the count it is given.
    const std::string hex = toHex(identity.engineId);
    lines = {"exactEngineID " + hex, "oldEngineID " + hex, "engineBoots " + std::to_string(identity.boots - 1)};
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_POST_PREMIB_READ_CONFIG, resetEngineTimeWatch, nullptr);
  } else {
    lines = {"engineID " + identity.idText};
  }
  for (std::string& line : lines) netsnmp_config_remember(line.data());
}

}  // namespace Quorvel::Kvan::SNMP
