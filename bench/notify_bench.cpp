// What notification targets cost the request loop: GETs per second of one
// scalar (one synchronous client) from an agent without targets, and from
// one whose inform target never answers while the largest number of informs
// it keeps waits for acknowledgements and is retried every 100 ms.
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <thread>

#include "snmp_wire.h"
#include "zelta/mibtypes.h"
#include "zelta/param.h"
#include "zelta/parammanager.h"
#include "zelta/snmpagent.h"

using namespace Quorvel::Kvan;
using namespace Quorvel::Kvan::SNMP;

namespace {

const char kScalarOid[] = "1.3.6.1.4.1.99999.1.1.0";
constexpr size_t kPending = 256;

double getsPerSecond(int port, int count) {
  zelta_bench::GetClient client(port, kScalarOid);
  const auto start = std::chrono::steady_clock::now();
  int answered = 0;
  for (int i = 0; i < count; ++i) answered += client.get() ? 1 : 0;
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return answered == count ? count / seconds : 0;
}

// state.range(0): 1 with the dead inform target.
void BM_GetsWithDeadInformTarget(benchmark::State& state) {
  const bool deadTarget = state.range(0) != 0;
  Variant value(42);
  SNMPInfo info{kScalarOid, READWRITE};
  info.setEntry(new IntMibLeaf(&info, &value));
  info.getEntry()->setChangeNotification(true);

  SNMPAgent::Options options;
  options.listenAddress = "127.0.0.1";
  options.port = zelta_test::freeUdpPort();
  options.changeNotificationOid = "1.3.6.1.4.1.99999.1.0.1";
  options.maxPendingInforms = kPending;
  if (deadTarget) {
    NotifyTarget target;
    target.port = zelta_test::freeUdpPort();  // nobody listens
    target.inform = true;
    target.timeoutMs = 100;
    target.retries = 1000000;
    options.notifyTargets.push_back(target);
  }
  SNMPAgent agent(nullptr, options);
  agent.addEntry("answer", info.getEntry());
  agent.start();
  for (int i = 0; i < 500 && !agent.isRunning(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  if (!agent.isRunning()) return state.SkipWithError("the agent did not start");
  // More changes than informs are kept: the oldest are dropped.
  for (size_t i = 0; i < 2 * kPending; ++i) agent.notifyChange(*info.getEntry());

  double total = 0;
  for (auto _ : state) total += getsPerSecond(options.port, 5000);
  state.counters["gets_per_s"] = total / static_cast<double>(state.iterations());
  agent.stop();
  agent.waitForFinish();
}
BENCHMARK(BM_GetsWithDeadInformTarget)->Arg(0)->Arg(1)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
