// Measures the listings of processes and ports, up to the bytes of the reply, beside the system's
// own programs, among processes of its own making.
//
//   ListingsBenchmark TABLE    TABLE is the table of the report that the rows belong to

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "HelperCore/ListeningPorts.h"
#include "HelperCore/ProcessListing.h"
#include "HelperProtocol/HelperCoding.h"
#include "Load.h"
#include "Paired.h"
#include "linux/ResourceLimits.h"

namespace tessaloom {
namespace {

std::size_t listProcesses(Kernel& kernel) {
  std::vector<ProcessSample> samples;
  const Instant now = kernel.processClockTime();
  for (const RawProcess& row : listRawProcesses(kernel)) {
    samples.push_back(makeProcessSample(row, now));
  }
  return HelperCoding::makeEncoder().encode(samples).size();
}

std::size_t listPorts(Kernel& kernel) {
  return HelperCoding::makeEncoder().encode(listListeningPorts(kernel)).size();
}

struct Subject {
  const char* name;
  std::vector<std::vector<std::string>> peers;
  std::size_t (*list)(Kernel&);
};

/// A first listing by a new kernel object, and a repeated one by an object that has listed before.
void measure(const std::string& table, const Subject& subject, Kernel& known, int processes,
             int rounds) {
  for (const auto& peer : subject.peers) {
    const auto runsPeer = [&] { return timed([&] { runPeer(peer); }); };
    const std::string name = subject.name;
    measurePairs(
        {table, name + ", first", peer.front(), processes}, rounds,
        [&] {
          std::unique_ptr<Kernel> fresh;
          return timed([&] {
            fresh = makeSystemKernel();
            subject.list(*fresh);
          });
        },
        runsPeer);
    measurePairs(
        {table, name + ", repeated", peer.front(), processes}, rounds,
        [&] { return timed([&] { subject.list(known); }); }, runsPeer);
  }
}

void measureAll(const std::string& table) {
  const std::vector<Subject> subjects{{"processes", {psCommand()}, listProcesses},
                                      {"ports", {ssCommand(), {"lsof", "-nP", "-i"}}, listPorts}};
  for (const Size& size : {Size{150, 31}, Size{1'000, 15}, Size{5'000, 7}}) {
    const Load load(size.processes);
    const auto known = makeSystemKernel();
    // What is known of a process counts when its probe is old enough.
    for (int warmUp = 0; warmUp < 3; ++warmUp) {
      for (const Subject& subject : subjects) subject.list(*known);
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    for (const Subject& subject : subjects) {
      measure(table, subject, *known, size.processes, size.rounds);
    }
  }
}

}  // namespace
}  // namespace tessaloom

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: ListingsBenchmark TABLE\n");
    return 2;
  }
  try {
    tessaloom::ResourceLimits::current().raise();  // As the helper does when it starts.
    tessaloom::measureAll(argv[1]);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ListingsBenchmark: %s\n", error.what());
    return 1;
  }
}
