// The demo agent: what a device's control program does with libzelta.
// It declares parameters of every type, among them a routing table with
// RowStatus, keeps them in two group files under a data directory, loads them
// and serves them over SNMP until Ctrl-C.
//
//   zelta_demo [--port N] [--address A] [--data-dir D] [--log-level debug|verbose]
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include <zelta/zelta.h>

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;

namespace {

volatile sig_atomic_t stopRequested = 0;

void onSignal(int) { stopRequested = 1; }

// Our subtree: an enterprise number reserved for documentation and tests.
const std::string kBase = "1.3.6.1.4.1.99999.1";

void usage(const char* program) {
  printf(
      "usage: %s [--port N] [--address A] [--data-dir D] [--log-level LEVEL]\n"
      "  --port N         UDP port to serve SNMP on (default 16161)\n"
      "  --address A      IPv4 address to listen on (default 127.0.0.1)\n"
      "  --data-dir D     where the group files live (default ./demo-data, created)\n"
      "  --log-level L    info (default), debug or verbose\n",
      program);
}

}  // namespace

int main(int argc, char** argv) {
  int port = 16161;
  std::string address = "127.0.0.1";
  std::string dataDir = "./demo-data";
  std::string level = "info";
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    bool hasValue = i + 1 < argc;
    if (arg == "--help" || arg == "-h") {
      usage(argv[0]);
      return 0;
    } else if (arg == "--port" && hasValue) {
      port = atoi(argv[++i]);
    } else if (arg == "--address" && hasValue) {
      address = argv[++i];
    } else if (arg == "--data-dir" && hasValue) {
      dataDir = argv[++i];
    } else if (arg == "--log-level" && hasValue) {
      level = argv[++i];
    } else {
      usage(argv[0]);
      return 2;
    }
  }
  if (port <= 0 || port > 65535) {
    fprintf(stderr, "zelta_demo: bad port %d\n", port);
    return 2;
  }
  // INFO needs remove/add: setLevelFromString only turns debugging on.
  Log.remove("libzelta");
  Log.add("libzelta", level == "verbose" ? VERBOSE : level == "debug" ? DEBUG : INFO);
  mkdir(dataDir.c_str(), 0755);

  // Group "system": one scalar of every type.
  ParamGroup system("system", dataDir + "/system.txt");
  SNMPInfo hostnameInfo(kBase + ".1.1.0", READWRITE);
  SNMPInfo volumeInfo(kBase + ".1.2.0", READWRITE);
  SNMPInfo uptimeInfo(kBase + ".1.3.0", READONLY);
  SNMPInfo gatewayInfo(kBase + ".1.4.0", READWRITE);
  SNMPInfo addressInfo(kBase + ".1.5.0", READWRITE);
  Param hostname(system, STRING, Variant("zelta-demo"), &hostnameInfo, SAVE_ON_CHANGE, {1, 32});
  Param volume(system, INTEGER, Variant(7), &volumeInfo, SAVE_ON_CHANGE, {0, 100});
  Param uptime(system, TIMETICKS, &uptimeInfo, NEVER_SAVE);
  Param gateway(system, IPADDRESS, Variant("192.168.1.1"), &gatewayInfo);
  uint8_t firstAddress[8];
  Common::logaddrMainSet(firstAddress, "1");
  Param logicalAddress(system, LOGADDRMAIN, Variant(static_cast<const unsigned char*>(firstAddress)), &addressInfo);

  // Validator: only dotted IPv4 addresses.
  gateway.setValidator([](const Variant& v, const ExtraInfo*) { return Common::isValidIpAddress(v.getString()); });
  // Filler: the uptime is computed when it is read.
  const auto started = std::chrono::steady_clock::now();
  uptime.setFiller([started](Variant& v, const ExtraInfo*) {
    auto hundredths =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count() / 10;
    v = Variant(TimeTicksValue{static_cast<uint32_t>(hundredths)});
    return true;
  });
  // Post-set hook: where a real program would apply the new setting.
  volume.addPostSet([](const Variant& v, const ExtraInfo*) {
    Log["libzelta"].append(INFO, "demo: volume is now %ld\n", v.getLong());
  });

  // Group "network": a routing table with RowStatus.
  ParamGroup network("network", dataDir + "/network.txt");
  // Columns: 1 index, 2 RowStatus, 3 destination, 4 metric (0..15, never 13),
  // 5 description. RowStatus right after the index keeps every value column
  // in the file.
  std::map<unsigned int, FieldType> routeFields{
      {3, FieldType(IPADDRESS, NO_RANGE, NO_RANGE)},
      {4, FieldType(
              INTEGER, [](const Variant& v, const ExtraInfo*) { return v.getLong() != 13; }, 0, 15)},
      {5, FieldType(STRING, 0, 64)},
  };
  TableDef routeDef({1}, 2, routeFields, 1);
  SNMPInfo routesInfo(kBase + ".2.1", READCREATE);
  Param routes(network, TABLE, Variant(Table(&routeDef)), &routesInfo);
  routes.addPostSet([](const Variant&, const ExtraInfo* info) {
    if (info != nullptr) {
      Log["libzelta"].append(INFO, "demo: routes row %s, action %d\n", Common::flatten(info->rowIdx).c_str(),
                             info->action);
    }
  });

  ParamManager manager;
  manager.add("hostname", &hostname);
  manager.add("volume", &volume);
  manager.add("uptime", &uptime);
  manager.add("gateway", &gateway);
  manager.add("address", &logicalAddress);
  manager.add("routes", &routes);
  manager.loadAllGroups();

  signal(SIGINT, onSignal);
  signal(SIGTERM, onSignal);
  SNMPAgent::Options options;
  options.port = port;
  options.listenAddress = address;
  options.sysDescr = "libzelta demo agent";
  SNMPAgent agent(&manager, options);
  agent.start();
  printf("zelta_demo: serving SNMP on %s:%d (communities public/vorpal), files in %s; Ctrl-C stops\n", address.c_str(),
         port, dataDir.c_str());
  fflush(stdout);
  for (int waited = 0; !agent.isRunning() && waited < 100; ++waited) usleep(50000);
  while (!stopRequested && agent.isRunning()) usleep(100000);

  agent.stop();
  agent.waitForFinish();
  manager.saveAllGroups();
  printf("zelta_demo: stopped, groups saved\n");
  return 0;
}
