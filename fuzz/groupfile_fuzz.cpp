// A group file's bytes, read into a fresh set of parameters of every type,
// some published over SNMP and some not. Loading must never crash or abort,
// what it loaded must save, and the saved file must read back into the same
// values: loading it into another fresh set and saving gives the same text.
// On every line the reader's scanner must agree with regexec and the two
// patterns it stands in for. The same bytes as an imported configuration:
// refused or taken, never a crash, and a taken one exports a text that
// imports again into the same settings.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "../tests/scan_oracle.h"
#include "zelta/logging.h"
#include "zelta/parammanager.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;

namespace {

// One device's parameters, saved to `path`. The group stays inactive: loading
// notifies nobody anyway, and nothing may start a save worker here.
struct Device {
  explicit Device(const std::string& path)
      : group("fuzz", path),
        def({1, 2}, 6, fields, 2),
        volume(group, INTEGER, &intInfo, SAVE_ON_CHANGE, {0, 100}),
        label(group, STRING, &strInfo),
        plainLabel(group, STRING, nullptr),
        gateway(group, IPADDRESS, nullptr),
        uptime(group, TIMETICKS, nullptr),
        addr(group, LOGADDRMAIN, nullptr),
        routes(group, TABLE, Variant(Table(&def)), &tableInfo),
        plainRoutes(group, TABLE, Variant(Table(&def)), nullptr) {
    group.setActiveMode(false);
    // Imports keep what they do not know; "level" lines are the volume's.
    group.setKeepForeignLines(true);
    volume.addFormerName("level");
    manager.add("volume", &volume);
    manager.add("label", &label);
    manager.add("plainLabel", &plainLabel);
    manager.add("gateway", &gateway);
    manager.add("uptime", &uptime);
    manager.add("addr", &addr);
    manager.add("routes", &routes);
    manager.add("plainRoutes", &plainRoutes);
  }
  std::map<unsigned int, FieldType> fields{{3, FieldType(IPADDRESS, NO_RANGE, NO_RANGE)},
                                           {4, FieldType(TIMETICKS, NO_RANGE, NO_RANGE)},
                                           {5, FieldType(LOGADDRMAIN, NO_RANGE, NO_RANGE)},
                                           {7, FieldType(STRING, 0, 16)},
                                           {8, FieldType(INTEGER, 0, 15)}};
  SNMPInfo intInfo{"1.3.6.1.4.1.99999.9.1.0", READWRITE};
  SNMPInfo strInfo{"1.3.6.1.4.1.99999.9.2.0", READWRITE};
  SNMPInfo tableInfo{"1.3.6.1.4.1.99999.9.3", READCREATE};
  ParamGroup group;
  TableDef def;
  Param volume, label, plainLabel, gateway, uptime, addr, routes, plainRoutes;
  ParamManager manager;
};

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// Loads `path` into a fresh device and returns what that device saves.
std::string loadAndSave(const std::string& path, const std::string& savePath) {
  Device device(savePath);
  device.manager.loadFromFile(path);
  if (!device.group.save()) {
    fprintf(stderr, "groupfile_fuzz: cannot save %s\n", savePath.c_str());
    abort();
  }
  return readFile(savePath);
}

struct Files {
  Files() {
    // Every save syncs its file: in memory (/dev/shm) that costs nothing.
    char shm[] = "/dev/shm/zelta-fuzz-XXXXXX";
    char tmp[] = "/tmp/zelta-fuzz-XXXXXX";
    const char* made = mkdtemp(shm);
    if (made == nullptr) made = mkdtemp(tmp);
    if (made == nullptr) abort();
    dir = made;
    Log["libzelta"].level = static_cast<EventType>(-1);  // quiet: bad lines are logged
  }
  std::string dir;
  std::string input() const { return dir + "/input.txt"; }
  std::string first() const { return dir + "/first.txt"; }
  std::string second() const { return dir + "/second.txt"; }
};

const Files& files() {
  static const Files* made = [] {
    auto* f = new Files();
    atexit([] {
      unlink(files().input().c_str());
      unlink(files().first().c_str());
      unlink(files().second().c_str());
      rmdir(files().dir.c_str());
    });
    return f;
  }();
  return *made;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Files& f = files();
  FILE* file = fopen(f.input().c_str(), "wb");
  if (file == nullptr) abort();
  if (size > 0 && fwrite(data, 1, size, file) != size) abort();
  fclose(file);
  static zelta_test::ScanOracle* oracle = new zelta_test::ScanOracle();
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  for (size_t start = 0; start <= bytes.size();) {
    size_t end = bytes.find('\n', start);
    if (end == std::string::npos) end = bytes.size();
    const std::string why = oracle->check(bytes.substr(start, end - start));
    if (!why.empty()) {
      fprintf(stderr, "groupfile_fuzz: scanner and regexec disagree: %s\n", why.c_str());
      abort();
    }
    start = end + 1;
  }
  const std::string first = loadAndSave(f.input(), f.first());
  const std::string second = loadAndSave(f.first(), f.second());
  if (first != second) {
    fprintf(stderr, "groupfile_fuzz: the saved file does not read back\n--- saved\n%s--- read back and saved\n%s",
            first.c_str(), second.c_str());
    abort();
  }
  std::string exported, error;
  {
    Device device(f.first());
    if (!device.manager.importConfig(bytes, error)) return 0;
    exported = device.manager.exportConfig();
  }
  Device again(f.second());
  if (!again.manager.importConfig(exported, error) || again.manager.exportConfig() != exported) {
    fprintf(stderr, "groupfile_fuzz: an export does not import back (%s)\n--- exported\n%s", error.c_str(),
            exported.c_str());
    abort();
  }
  return 0;
}
