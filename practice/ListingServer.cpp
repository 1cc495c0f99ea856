// Answers each line of standard input, "processes" or "ports", with a line: the listing's reply
// body. For script/compare-with-system.

#include <iostream>
#include <string>
#include <vector>

#include "HelperCore/ListeningPorts.h"
#include "HelperCore/ProcessListing.h"
#include "HelperProtocol/HelperCoding.h"

int main() {
  using namespace tessaloom;
  const auto kernel = makeSystemKernel();
  const JSONEncoder encoder = HelperCoding::makeEncoder();
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "ports") {
      std::cout << encoder.encode(listListeningPorts(*kernel)) << std::endl;
      continue;
    }
    std::vector<ProcessSample> samples;
    for (const RawProcess& row : listRawProcesses(*kernel)) {
      samples.push_back(makeProcessSample(row, kernel->processClockTime()));
    }
    std::cout << encoder.encode(samples) << std::endl;
  }
}
