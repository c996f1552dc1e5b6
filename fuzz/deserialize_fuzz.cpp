// The escaped-string decoder takes any bytes; what it decodes must encode
// back to text that decodes to the same bytes.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zelta/common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace Quorvel::Kvan::Common;
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string decoded = deserialize(input);
  if (deserialize("\"" + serialize(decoded) + "\"") != decoded) abort();
  if (deserialize("\"" + serialize(input) + "\"") != input) abort();
  return 0;
}
