// Smallest host program: prints the library's log line format on the
// "libzelta" channel.
#include <zelta/zelta.h>

using namespace Quorvel::Kvan;

int main() {
  Log["libzelta"].append(WARNING, "hello: libzelta is loaded, now %s\n", Common::now().c_str());
  return 0;
}
