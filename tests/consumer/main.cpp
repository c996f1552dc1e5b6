// A host program built against an installed libzelta (by find_package or by
// pkg-config): it declares a group with two parameters, saves the group to a
// temporary directory, changes the values and loads them back, printing each
// step. Exits non-zero when the library does not do what its README says.
//
//   zelta_consumer [library-file]
// With an argument it also checks that the libzelta the loader picked is that
// file, so that another copy on the machine cannot stand in for the one under
// test.
#include <link.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include <zelta/zelta.h>

using namespace Quorvel::Kvan;

namespace {

int failures = 0;

void check(bool ok, const char* what, const std::string& got, const std::string& want) {
  printf("%s %s: %s\n", ok ? "ok  " : "FAIL", what, got.c_str());
  if (!ok) {
    printf("     expected: %s\n", want.c_str());
    ++failures;
  }
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string realPath(const std::string& path) {
  char* resolved = realpath(path.c_str(), nullptr);
  if (resolved == nullptr) return path;
  std::string result = resolved;
  free(resolved);
  return result;
}

int findLibzelta(dl_phdr_info* info, size_t, void* data) {
  if (info->dlpi_name != nullptr && strstr(info->dlpi_name, "/libzelta.so") != nullptr) {
    *static_cast<std::string*>(data) = info->dlpi_name;
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    std::string loaded;
    dl_iterate_phdr(findLibzelta, &loaded);
    check(!loaded.empty() && realPath(loaded) == realPath(argv[1]), "library loaded", realPath(loaded),
          realPath(argv[1]));
  }

  char tmpl[] = "/tmp/zelta-consumer-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) {
    perror("zelta_consumer: mkdtemp");
    return 2;
  }
  const std::string dir = tmpl;
  const std::string path = dir + "/audio.txt";
  const std::string label0 = "Front door \"A\"";
  {
    ParamGroup audio("audio", path);
    Param volume(audio, INTEGER, Variant(7), nullptr);
    Param label(audio, STRING, Variant(label0), nullptr);
    ParamManager manager;
    manager.add("volume", &volume);
    manager.add("label", &label);

    volume.setValue(42);
    check(audio.save(), "save", audio.getFilePath(), path);
    const std::string want = "volume.0 = 0:2:42\nlabel.0 = 0:4:\"Front door \\x22A\\x22\"\n";
    check(readFile(path) == want, "group file", "\n" + readFile(path), "\n" + want);

    // Loading must bring back what was saved, over whatever the values are now.
    volume.setValue(0);
    label.setValue("changed");
    manager.loadAllGroups();
    check(volume.getValueCopy().getLong() == 42, "volume loaded", volume.getValueCopy().toString(), "42");
    check(label.getValueCopy().getString() == label0, "label loaded", label.getValueCopy().getString(), label0);
    // A countdown still running would outlive the group.
    check(!audio.isWorkerRunning(), "no save pending", audio.isWorkerRunning() ? "pending" : "none", "none");
  }
  unlink(path.c_str());
  rmdir(dir.c_str());
  printf("%s\n", failures == 0 ? "zelta_consumer: all checks passed" : "zelta_consumer: FAILED");
  return failures == 0 ? 0 : 1;
}
