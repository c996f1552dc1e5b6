// The demo agent: what a device's control program does with libzelta.
// It declares parameters of every type, among them a routing table with
// RowStatus (demo_params.h), keeps them in two group files under a data
// directory, loads them and serves them over SNMP until Ctrl-C. A change of
// the host name, volume, gateway or routing table is told to the receivers
// given with --notify (SNMPv2c traps) and --inform (SNMPv2c informs). With
// --write-mib it writes its MIB module instead. With --agentx it serves
// through the device's snmpd as an AgentX subagent, on no port of its own.
// With --export, --import or --factory-reset it works on the settings in
// the data directory and exits. Its files keep the lines of other versions
// of the demo, and a value it would refuse over SNMP is refused from them
// too.
//
//   zelta_demo [--port N] [--address A] [--agentx MASTER] [--data-dir D] [--log-level debug|verbose]
//              [--notify HOST:PORT]... [--inform HOST:PORT]... [--write-mib FILE]
//              [--export FILE | --import FILE | --factory-reset]
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include <zelta/zelta.h>

#include "demo_params.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;

namespace {

volatile sig_atomic_t stopRequested = 0;

void onSignal(int) { stopRequested = 1; }

void usage(const char* program) {
  printf(
      "usage: %s [--port N] [--address A] [--agentx MASTER] [--data-dir D] [--log-level LEVEL]\n"
      "          [--notify HOST:PORT]... [--inform HOST:PORT]... [--write-mib FILE]\n"
      "          [--export FILE | --import FILE | --factory-reset]\n"
      "  --port N         UDP port to serve SNMP on (default 16161)\n"
      "  --address A      IPv4 address to listen on (default 127.0.0.1)\n"
      "  --agentx MASTER  serve through an AgentX master (snmpd's socket path, or tcp:HOST:PORT), no port\n"
      "  --data-dir D     where the group files live (default ./demo-data, created)\n"
      "  --log-level L    info (default), debug or verbose\n"
      "  --notify H:P     send coldStart and change notifications to H:P as SNMPv2c traps (community public)\n"
      "  --inform H:P     the same as SNMPv2c informs, retried until acknowledged\n"
      "  --write-mib F    write the demo's MIB module (ZELTA-DEMO-MIB) to F and exit\n"
      "  --export F       write the settings of the files in the data directory to F and exit\n"
      "  --import F       replace those settings by F's, all or nothing, and exit (1 when refused)\n"
      "  --factory-reset  restore the factory settings in the data directory and exit\n",
      program);
}

}  // namespace

int main(int argc, char** argv) {
  int port = 16161;
  std::string address = "127.0.0.1";
  std::string dataDir = "./demo-data";
  std::string level = "info";
  std::string mibFile;
  std::vector<NotifyTarget> receivers;
  std::string agentxMaster;
  std::string exportFile, importFile;
  bool factoryReset = false;
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
    } else if (arg == "--agentx" && hasValue) {
      agentxMaster = argv[++i];
    } else if (arg == "--data-dir" && hasValue) {
      dataDir = argv[++i];
    } else if (arg == "--log-level" && hasValue) {
      level = argv[++i];
    } else if ((arg == "--notify" || arg == "--inform") && hasValue) {
      const std::string target = argv[++i];
      const size_t colon = target.rfind(':');
      NotifyTarget receiver;
      receiver.address = target.substr(0, colon);
      receiver.port = colon == std::string::npos ? 162 : atoi(target.c_str() + colon + 1);
      receiver.inform = arg == "--inform";
      if (receiver.address.empty() || receiver.port <= 0 || receiver.port > 65535) {
        fprintf(stderr, "zelta_demo: bad receiver '%s' (HOST:PORT)\n", target.c_str());
        return 2;
      }
      receivers.push_back(receiver);
    } else if (arg == "--write-mib" && hasValue) {
      mibFile = argv[++i];
    } else if (arg == "--export" && hasValue) {
      exportFile = argv[++i];
    } else if (arg == "--import" && hasValue) {
      importFile = argv[++i];
    } else if (arg == "--factory-reset") {
      factoryReset = true;
    } else {
      usage(argv[0]);
      return 2;
    }
  }
  if (port <= 0 || port > 65535) {
    fprintf(stderr, "zelta_demo: bad port %d\n", port);
    return 2;
  }
  if (!mibFile.empty()) {
    zelta_demo::DemoParams demo(dataDir);
    std::string error;
    if (!writeMibModule(mibFile, demo.manager, zelta_demo::demoMibOptions(), error)) {
      fprintf(stderr, "zelta_demo: %s\n", error.c_str());
      return 1;
    }
    printf("zelta_demo: wrote %s\n", mibFile.c_str());
    return 0;
  }
  // INFO needs remove/add: setLevelFromString only turns debugging on.
  Log.remove("libzelta");
  Log.add("libzelta", level == "verbose" ? VERBOSE : level == "debug" ? DEBUG : INFO);
  mkdir(dataDir.c_str(), 0755);

  zelta_demo::DemoParams demo(dataDir);
  ParamManager& manager = demo.manager;
  for (ParamGroup* group : {&demo.system, &demo.network}) group->setKeepForeignLines(true);
  manager.setCheckedLoading(true);
  manager.loadAllGroups();
  // A manager can create 64 routes at most: nobody can fill the device's
  // memory with them.
  demo.routesInfo.entryAs<DynMibTable>()->setMaxRows(64);
  if (!exportFile.empty() || !importFile.empty() || factoryReset) {
    std::string error, done;
    bool ok = true;
    if (!exportFile.empty()) {
      ok = manager.exportConfigFile(exportFile, error);
      done = "wrote the settings in " + dataDir + " to " + exportFile;
    } else if (!importFile.empty()) {
      ok = manager.importConfigFile(importFile, error);
      error = "import refused, nothing changed: " + error;
      done = "imported " + importFile + " into " + dataDir;
    } else {
      manager.factoryReset();
      done = "factory settings restored in " + dataDir;
    }
    if (!ok) {
      fprintf(stderr, "zelta_demo: %s\n", error.c_str());
      return 1;
    }
    printf("zelta_demo: %s\n", done.c_str());
    return 0;
  }

  signal(SIGINT, onSignal);
  signal(SIGTERM, onSignal);
  SNMPAgent::Options options;
  options.port = port;
  options.listenAddress = address;
  options.sysDescr = "libzelta demo agent";
  options.notifyTargets = receivers;
  options.changeNotificationOid = zelta_demo::kChangeNotification;
  for (SNMPInfo* info : {&demo.hostnameInfo, &demo.volumeInfo, &demo.gatewayInfo, &demo.routesInfo})
    info->getEntry()->setChangeNotification(true);
  options.agentxMaster = agentxMaster;
  SNMPAgent agent(&manager, options);
  agent.start();
  if (agentxMaster.empty())
    printf("zelta_demo: serving SNMP on %s:%d (communities public/vorpal), files in %s; Ctrl-C stops\n",
           address.c_str(), port, dataDir.c_str());
  else
    printf("zelta_demo: serving SNMP through the AgentX master at %s, files in %s; Ctrl-C stops\n",
           agentxMaster.c_str(), dataDir.c_str());
  fflush(stdout);
  for (int waited = 0; !agent.isRunning() && waited < 100; ++waited) usleep(50000);
  while (!stopRequested && agent.isRunning()) usleep(100000);

  agent.stop();
  agent.waitForFinish();
  manager.saveAllGroups();
  printf("zelta_demo: stopped, groups saved\n");
  return 0;
}
