#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "HelperProtocol/linux/BusHandles.h"
#include "TessaloomHelper/HelperService.h"
#include "TessaloomHelper/Tasks.h"
#include "linux/BusMailbox.h"
#include "linux/CallLoad.h"
#include "linux/PeerRequirement.h"
#include "linux/SerialQueue.h"

namespace tessaloom {

/// What an admitted caller's calls run on. Jobs keep it until they have run.
struct CallerConnection {
  CallerConnection(const ServiceContext& context, Tasks& tasks)
      : service(context), queue(tasks, QualityOfService::userInitiated) {}

  HelperService service;
  SerialQueue queue;
  std::atomic<bool> isGone = false;  ///< Nobody waits for answers any more.
};

class BusCallers;

/// A peer that has called, by its unique name, which a bus never gives twice.
struct BusCaller {
  enum class Standing : std::uint8_t { undecided, admitted, refused };

  BusCaller(BusCallers& owner, std::string uniqueName)
      : callers(owner), name(std::move(uniqueName)) {}

  BusCallers& callers;
  std::string name;
  Standing standing = Standing::undecided;
  BusSlot departure;
  BusSlot credentials;
  std::vector<BusMessage> held;                  ///< Calls that came while undecided.
  std::shared_ptr<CallerConnection> connection;  ///< Of an admitted caller.
  CallLoad waiting;                              ///< Accepted and not answered yet.
};

/// Who may call: meets every sender, has it vetted once, and forgets it when it leaves the bus.
/// On the bus's thread only.
class BusCallers {
 public:
  static constexpr std::size_t maximumCallers = 256;
  static constexpr std::size_t maximumHeldCalls = 64;

  /// `tasks` reads what the system tells about a peer; `queueTasks` runs the callers' queues.
  BusCallers(sd_bus* bus, BusMailbox& mailbox, Tasks& tasks, Tasks& queueTasks,
             const ServiceContext& context, PeerRequirement requirement);
  ~BusCallers();

  /// Decides about one call before anything else sees it: 0 when its sender is admitted; else it
  /// was answered or is held until the decision, and the result is greater than 0, or an errno less
  /// than 0.
  int vet(sd_bus_message* call);

  /// The caller of this name, or null.
  BusCaller* find(std::string_view name);

  /// Whether a call waits for the decision about its sender.
  bool hasHeldCalls() const;

 private:
  class Vetting;

  BusCaller* meet(const char* name);
  bool makeRoom();
  int hold(BusCaller& caller, sd_bus_message* call);
  void startVetting(BusCaller& caller, sd_bus_message* credentials);
  void decide(const std::string& name, bool isAdmitted);
  void refuse(BusCaller& caller);
  void admit(BusCaller& caller);
  void forget(const std::string& name);

  static int onDeparture(sd_bus_message* signal, void* userdata, sd_bus_error* error);
  static int onWatching(sd_bus_message* reply, void* userdata, sd_bus_error* error);
  static int onCredentials(sd_bus_message* reply, void* userdata, sd_bus_error* error);

  sd_bus* bus_;
  BusMailbox& mailbox_;
  Tasks& tasks_;
  Tasks& queueTasks_;
  const ServiceContext& context_;
  PeerRequirement requirement_;
  std::unordered_map<std::string, std::unique_ptr<BusCaller>> callers_;
  std::list<Vetting> vettings_;
};

}  // namespace tessaloom
