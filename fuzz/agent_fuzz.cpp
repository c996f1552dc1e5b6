// One UDP datagram of any bytes to the SNMP agent of the library, running in
// this process on a loopback port and serving parameters of every type and two
// tables. The agent must survive it and answer the next request: after every
// input a GET is sent and its answer awaited (bounded), which also makes the
// agent finish the input before the next one starts.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>

#include "../tests/loopback.h"
#include "zelta/logging.h"
#include "zelta/parammanager.h"
#include "zelta/snmpagent.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;

namespace {

const std::string kBase = "1.3.6.1.4.1.99999.42";

// SNMPv2c GET of sysUpTime.0 with community "public", request-id 42.
const uint8_t kProbe[] = {0x30, 0x26, 0x02, 0x01, 0x01, 0x04, 0x06, 'p',  'u',  'b',  'l',  'i',  'c',  0xa0,
                          0x19, 0x02, 0x01, 0x2a, 0x02, 0x01, 0x00, 0x02, 0x01, 0x00, 0x30, 0x0e, 0x30, 0x0c,
                          0x06, 0x08, 0x2b, 0x06, 0x01, 0x02, 0x01, 0x01, 0x03, 0x00, 0x05, 0x00};

using zelta_test::freeUdpPort;

using zelta_test::connectedSocket;

// Throws away whatever has arrived on `fd`.
void drain(int fd) {
  char buf[65536];
  while (recv(fd, buf, sizeof buf, MSG_DONTWAIT) > 0) {
  }
}

// Parameters of every published kind, hooks that write other parameters,
// and two tables with preloaded rows.
struct Device {
  Device()
      : group("fuzz", "/nonexistent/zelta-agent-fuzz.txt"),
        def({1}, 2, fields, 1),
        pairDef({1, 2}, 3, pairFields, 2),
        volume(group, INTEGER, Variant(7), &volumeInfo, NEVER_SAVE, {0, 100}),
        label(group, STRING, Variant("box"), &labelInfo, NEVER_SAVE),
        gateway(group, IPADDRESS, Variant("10.0.0.1"), &gatewayInfo, NEVER_SAVE),
        uptime(group, TIMETICKS, &uptimeInfo, NEVER_SAVE),
        address(group, LOGADDRMAIN, &addressInfo, NEVER_SAVE),
        shortName(group, STRING, Variant("abc"), &shortNameInfo, NEVER_SAVE, {1, 8}),
        serial(group, INTEGER, Variant(12345), &serialInfo, NEVER_SAVE),
        echo(group, STRING, nullptr, NEVER_SAVE),
        routes(group, TABLE, Variant(initialRoutes()), &routesInfo, NEVER_SAVE),
        pairs(group, TABLE, Variant(Table(&pairDef)), &pairsInfo, NEVER_SAVE) {
    manager.add("volume", &volume);
    manager.add("label", &label);
    manager.add("gateway", &gateway);
    manager.add("uptime", &uptime);
    manager.add("address", &address);
    manager.add("shortName", &shortName);
    manager.add("serial", &serial);
    manager.add("echo", &echo);
    manager.add("routes", &routes);
    manager.add("pairs", &pairs);
    label.setValidator([](const Variant& v, const ExtraInfo*) { return v.getString() != "bad"; });
    label.addPostSet([this](const Variant& v, const ExtraInfo*) { echo.setValue(Variant(v.getString())); });
    uptime.setFiller([this](Variant& v, const ExtraInfo*) {
      v = Variant(TimeTicksValue{v.getTimeTicks().value + 1});
      serial.setValue(static_cast<long>(v.getTimeTicks().value % 1000));  // fillers may write others
      return true;
    });
    routes.addPostSet([this](const Variant&, const ExtraInfo* info) {
      if (info != nullptr) echo.setValue(Variant("routes " + std::to_string(info->action)));
    });
  }
  Table initialRoutes() {
    Table table(&def);
    table.setCellValue({1}, 3, std::string("192.168.0.1"));
    table.setCellValue({1}, 4, 3L);
    table.setCellValue({2}, 5, std::string("hall"));
    return table;
  }

  std::map<unsigned int, FieldType> fields{{3, FieldType(IPADDRESS, NO_RANGE, NO_RANGE)},
                                           {4, FieldType(INTEGER, 0, 15)},
                                           {5, FieldType(STRING, 0, 16)},
                                           {6, FieldType(TIMETICKS, NO_RANGE, NO_RANGE)},
                                           {7, FieldType(LOGADDRMAIN, NO_RANGE, NO_RANGE)}};
  std::map<unsigned int, FieldType> pairFields{
      {4, FieldType(
              INTEGER, [](const Variant& v, const ExtraInfo*) { return v.getLong() != 13; }, NO_RANGE, NO_RANGE)},
      {5, FieldType(STRING, NO_RANGE, NO_RANGE)}};
  SNMPInfo volumeInfo{kBase + ".1.0", READWRITE};
  SNMPInfo labelInfo{kBase + ".2.0", READWRITE};
  SNMPInfo gatewayInfo{kBase + ".3.0", READWRITE};
  SNMPInfo uptimeInfo{kBase + ".4.0", READWRITE};
  SNMPInfo addressInfo{kBase + ".5.0", READWRITE};
  SNMPInfo shortNameInfo{kBase + ".6.0", READWRITE};
  SNMPInfo serialInfo{kBase + ".7.0", READONLY};
  SNMPInfo routesInfo{kBase + ".8.1", READCREATE};
  SNMPInfo pairsInfo{kBase + ".9.1", READCREATE};
  ParamGroup group;
  TableDef def;
  TableDef pairDef;
  Param volume, label, gateway, uptime, address, shortName, serial, echo, routes, pairs;
  ParamManager manager;
};

struct Fixture {
  Fixture() {
    Log["libzelta"].level = static_cast<EventType>(-1);  // quiet: bad packets are logged
    SNMPAgent::Options options;
    options.port = freeUdpPort();
    options.listenAddress = "127.0.0.1";
    options.v3User = "fuzzuser";
    options.v3AuthPassphrase = "fuzz-auth-pass";
    options.v3PrivPassphrase = "fuzz-priv-pass";
    options.engineId = "zeltafuzz";
    agent = new SNMPAgent(&device->manager, options);
    agent->start();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!agent->isRunning() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!agent->isRunning()) {
      fprintf(stderr, "agent_fuzz: the agent did not start on port %d\n", options.port);
      abort();
    }
    input = connectedSocket(options.port);
    probe = connectedSocket(options.port);
    if (input < 0 || probe < 0) abort();
    // Stop the agent thread before the library's globals go at exit.
    atexit([] {
      fixture().agent->stop();
      fixture().agent->waitForFinish();
    });
  }
  static Fixture& fixture();

  Device* device = new Device();  // never destroyed: the agent serves it until exit
  SNMPAgent* agent = nullptr;
  int input = -1;
  int probe = -1;
};

Fixture& Fixture::fixture() {
  static Fixture* made = new Fixture();
  return *made;
}

// Sends the probe and waits for its answer: up to three tries of five
// seconds, far beyond what a live agent needs even under a sanitizer.
bool agentAnswers(Fixture& f) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    drain(f.probe);
    if (send(f.probe, kProbe, sizeof kProbe, 0) != static_cast<ssize_t>(sizeof kProbe)) continue;
    pollfd ready{f.probe, POLLIN, 0};
    if (poll(&ready, 1, 5000) == 1) {
      uint8_t answer[2048];
      ssize_t n = recv(f.probe, answer, sizeof answer, 0);
      if (n > 0 && answer[0] == 0x30) return true;
    }
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fixture& f = Fixture::fixture();
  drain(f.input);
  // The largest UDP payload over IPv4.
  if (size > 65507) size = 65507;
  send(f.input, data, size, 0);
  if (!agentAnswers(f)) {
    fprintf(stderr, "agent_fuzz: the agent stopped answering\n");
    abort();
  }
  return 0;
}
