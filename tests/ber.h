// Just enough BER to build SNMP messages byte by byte: for tests that send
// what the tools refuse to encode, and for benchmarks that time the agent
// rather than a client library.
#ifndef ZELTA_TESTS_BER_H_
#define ZELTA_TESTS_BER_H_

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace zelta_test {

// Tag, definite length (short or long form) and content.
inline std::string tlv(int tag, const std::string& content) {
  std::string out(1, static_cast<char>(tag));
  std::string length;
  for (size_t n = content.size(); n != 0; n >>= 8) length.insert(length.begin(), static_cast<char>(n & 0xff));
  if (content.size() < 128)
    out += static_cast<char>(content.size());
  else
    out += static_cast<char>(0x80 | length.size()) + length;
  return out + content;
}

// An INTEGER in its shortest two's-complement form.
inline std::string berInt(uint32_t v) {
  std::string bytes;
  do {
    bytes.insert(bytes.begin(), static_cast<char>(v & 0xff));
    v >>= 8;
  } while (v != 0);
  if (static_cast<unsigned char>(bytes[0]) & 0x80) bytes.insert(bytes.begin(), '\0');
  return tlv(0x02, bytes);
}

// An OBJECT IDENTIFIER; sub-identifiers above 32 bits are encoded too, for
// requests an agent must refuse.
inline std::string berOid(const std::vector<uint64_t>& ids) {
  std::string out(1, static_cast<char>(ids[0] * 40 + ids[1]));
  for (size_t i = 2; i < ids.size(); ++i)
    for (int shift = 63; shift >= 0; shift -= 7)
      if (shift == 0 || ids[i] >> shift != 0) out += static_cast<char>((shift ? 0x80 : 0) | ((ids[i] >> shift) & 0x7f));
  return tlv(0x06, out);
}

inline std::string berOid(const char* dotted) {
  std::vector<uint64_t> ids;
  for (const char* p = dotted + (dotted[0] == '.' ? 1 : 0); *p != '\0';) {
    ids.push_back(strtoull(p, const_cast<char**>(&p), 10));
    if (*p == '.') ++p;
  }
  return berOid(ids);
}

// An SNMPv2c GET of `oids` with community `community`.
inline std::string getRequest(const std::vector<std::string>& oids, uint32_t requestId,
                              const std::string& community = "public") {
  std::string bindings;
  for (const std::string& oid : oids) bindings += tlv(0x30, berOid(oid.c_str()) + tlv(0x05, ""));
  return tlv(0x30, berInt(1) + tlv(0x04, community) +
                       tlv(0xA0, berInt(requestId) + berInt(0) + berInt(0) + tlv(0x30, bindings)));
}

}  // namespace zelta_test

#endif  // ZELTA_TESTS_BER_H_
