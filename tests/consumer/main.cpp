// A host program built against an installed libzelta (by find_package or by
// pkg-config): saves a group next to itself, changes the values, loads them
// back; built with ZELTA_CONSUMER_MIBGEN it also makes the MIB module of a
// published parameter with the MIB generator's library. `zelta_consumer
// library-file` also fails when the libzelta the loader picked is not that
// file: another copy on the machine cannot stand in for it.
#include <link.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <zelta/zelta.h>
#ifdef ZELTA_CONSUMER_MIBGEN
#include <zelta/mibgen.h>
#endif

using namespace Quorvel::Kvan;

static std::string realPath(const char* path) {
  char* resolved = realpath(path, nullptr);
  std::string result = resolved != nullptr ? resolved : "";
  free(resolved);
  return result;
}

int main(int argc, char** argv) {
  std::string loaded;
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* out) {
        if (strstr(info->dlpi_name, "/libzelta.so") == nullptr) return 0;
        *static_cast<std::string*>(out) = realPath(info->dlpi_name);
        return 1;
      },
      &loaded);
  if (argc < 2 || loaded.empty() || loaded != realPath(argv[1])) {
    fprintf(stderr, "zelta_consumer: loaded libzelta '%s', not %s\n", loaded.c_str(), argc > 1 ? argv[1] : "-");
    return 1;
  }
  ParamGroup audio("audio", std::string(argv[0]) + ".audio");
  Param volume(audio, INTEGER, Variant(7), nullptr);
  Param label(audio, STRING, Variant(std::string("front door")), nullptr);
  ParamManager manager;
  manager.add("volume", &volume);
  manager.add("label", &label);
  volume.setValue(42);
  bool ok = audio.save();
  volume.setValue(0);
  label.setValue("changed");
  manager.loadAllGroups();
  ok = ok && volume.getValueCopy().getLong() == 42 && label.getValueCopy().getString() == "front door";
#ifdef ZELTA_CONSUMER_MIBGEN
  ParamGroup mixer("mixer", std::string(argv[0]) + ".mixer");
  SNMP::SNMPInfo levelOid("1.3.6.1.4.1.99999.1.1.0", SNMP::READWRITE);
  Param level(mixer, INTEGER, Variant(3), &levelOid, SAVE_ON_CHANGE, {0, 10});
  ParamManager published;
  published.add("level", &level);
  SNMP::MibModuleOptions mib;
  mib.moduleName = "CONSUMER-MIB";
  mib.oid = "1.3.6.1.4.1.99999.1";
  mib.revisionDate = "2026-01-01";
  std::string module, error;
  const bool written = SNMP::generateMibModule(published, mib, module, error) &&
                       module.find("level OBJECT-TYPE\n    SYNTAX      Integer32 (0..10)") != std::string::npos;
  if (!written) fprintf(stderr, "zelta_consumer: no MIB module: %s\n%s\n", error.c_str(), module.c_str());
  ok = ok && written;
#endif
  puts(ok ? "zelta_consumer: saved, loaded back" : "zelta_consumer: FAILED to save and load back");
  return ok ? 0 : 1;
}
