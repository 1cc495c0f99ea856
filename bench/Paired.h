#pragma once

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace tessaloom {

using Microseconds = std::chrono::duration<double, std::micro>;

inline Microseconds timed(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::steady_clock::now() - start;
}

/// One row of the measurements: something of the helper's beside a peer that does the same.
struct Pair {
  std::string table;  ///< The table of the report to which the row belongs.
  std::string name;
  std::string peer;
  int size = 0;  ///< How much work it is, for rows that show how the cost grows; 0 for others.
};

/// Prints all samples of a row, in microseconds or what the row's name says, as one line of JSON
/// for bench/report.py. The texts must need no escapes.
inline void printPair(const Pair& pair, const std::vector<double>& own,
                      const std::vector<double>& theirs) {
  const auto list = [](const std::vector<double>& samples) {
    std::string text;
    for (const double sample : samples) text += (text.empty() ? "" : ",") + std::to_string(sample);
    return text;
  };
  std::printf(
      "{\"table\":\"%s\",\"name\":\"%s\",\"peer\":\"%s\",\"size\":%d,\"own\":[%s],\"theirs\":[%s]}"
      "\n",
      pair.table.c_str(), pair.name.c_str(), pair.peer.c_str(), pair.size, list(own).c_str(),
      list(theirs).c_str());
  std::fflush(stdout);
}

/// Measures both in turn (A, B, A, B, ...), so that what else happens on the machine affects both.
/// The two functions return the time of one run.
inline void measurePairs(const Pair& pair, int rounds, const std::function<Microseconds()>& own,
                         const std::function<Microseconds()>& peer) {
  std::vector<double> ownTimes;
  std::vector<double> peerTimes;
  for (int round = 0; round < rounds; ++round) {
    ownTimes.push_back(own().count());
    peerTimes.push_back(peer().count());
  }
  printPair(pair, ownTimes, peerTimes);
}

}  // namespace tessaloom
