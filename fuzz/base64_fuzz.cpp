// The lenient Base64 decoder takes any text; encoding any bytes and decoding
// them gives the bytes back.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "zelta/common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace Quorvel::Kvan::Common;
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string decoded = b64decode(input);
  if (decoded.size() > input.size()) abort();
  if (b64decode(b64encode(input)) != input) abort();
  return 0;
}
