// NSXPC between two processes of this machine. What the system requires of both ends, and what it
// does not allow, ends the process here.

#import <Foundation/Foundation.h>

#include <dispatch/dispatch.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "CodeSigning.h"
#import "Foundation+Doubles.h"
#include "Queue.h"
#include "Runtime.h"
#include "Wire.h"

#pragma clang diagnostic ignored "-Wobjc-designated-initializers"
#pragma clang diagnostic ignored "-Wobjc-missing-super-calls"

using VersionBlock = void (^)(std::int64_t);
using DataBlock = void (^)(NSData*, NSError*);
using ErrorBlock = void (^)(NSError*);

namespace {

constexpr NSInteger interrupted = 4097, invalid = 4099, replyInvalid = 4101;

NSError* connectionError(NSInteger code) {
  return [NSError
      errorWithDomain:@"NSCocoaErrorDomain"
                 code:code
             userInfo:@{
               NSLocalizedDescriptionKey : @"Couldn’t communicate with a helper application."
             }];
}

/// A method's shape as a protocol's metadata describes it: what XPC makes its messages from.
struct Shape {
  bool takesRequest;
  bool repliesWithData;
};

std::optional<Shape> shapeOf(Protocol* protocol, Selector selector) {
  const auto* record = (__bridge const ProtocolRecord*)protocol;
  const MethodList& methods = *record->instanceMethods;
  for (std::uint32_t i = 0; i < methods.count; ++i) {
    if (methods.methods[i].name != selector) continue;
    const std::string_view types = record->extendedTypes[i];
    if (types == "v24@0:8@?<v@?q>16") return Shape{false, false};
    if (types == "v24@0:8@?<v@?@\"NSData\"@\"NSError\">16") return Shape{false, true};
    if (types == "v32@0:8@\"NSData\"16@?<v@?@\"NSData\"@\"NSError\">24") return Shape{true, true};
    runtime::fault(std::string("XPC cannot send ") + selector + " " + std::string(types));
  }
  return std::nullopt;
}

std::string bytesOf(NSData* data) {
  if (![data isKindOfClass:[NSData class]])
    runtime::fault("not the class that the interface names");
  return {static_cast<const char*>(data.bytes), data.length};
}

/// How an error crosses: its user information must be property-list values; here all are strings.
Wire::Message parts(NSError* error) {
  if (![error isKindOfClass:[NSError class]])
    runtime::fault("not the class that the interface names");
  Wire::Message message{error.domain.UTF8String, std::to_string(error.code)};
  for (const auto& [key, value] : error.userInfo.entries) {
    if (![value isKindOfClass:[NSString class]])
      runtime::fault("an error's " + key + " is not a string");
    message.insert(message.end(), {key, static_cast<NSString*>(value).UTF8String});
  }
  return message;
}

NSError* errorFrom(const Wire::Message& message, std::size_t at) {
  std::vector<NSString*> keys, values;
  for (std::size_t i = at + 2; i + 1 < message.size(); i += 2) {
    keys.push_back(stringOf(message[i]));
    values.push_back(stringOf(message[i + 1]));
  }
  return [NSError errorWithDomain:stringOf(message[at])
                             code:std::stol(message[at + 1])
                         userInfo:[NSDictionary dictionaryWithObjects:values.data()
                                                              forKeys:keys.data()
                                                                count:keys.size()]];
}

/// One received call, which must be answered exactly once.
class Reply {
 public:
  Reply(std::shared_ptr<Wire> wire, std::shared_ptr<Queue> sends, std::string call,
        std::string method)
      : wire_(std::move(wire)),
        sends_(std::move(sends)),
        call_(std::move(call)),
        method_(std::move(method)) {}
  ~Reply() {
    if (!isGiven_) runtime::fault("the reply of " + method_ + " was dropped");
  }
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;

  void give(NSData* data, NSError* error) {
    if ((data == nil) == (error == nil))
      runtime::fault(method_ + " replied not one of data and error");
    if (data != nil) return give({"data", bytesOf(data)});
    Wire::Message message = parts(error);
    message.insert(message.begin(), "error");
    give(message);
  }
  // The caller does not wait: the message goes out after the block has returned.
  void give(Wire::Message message) {
    if (isGiven_.exchange(true)) runtime::fault("a second reply of " + method_);
    message.insert(message.begin(), call_);
    const std::string delay(environmentOf("DOUBLE_SEND_DELAY"));
    const auto due = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(delay.empty() ? 0 : std::stol(delay));
    sends_->run([wire = wire_, message, due] {
      std::this_thread::sleep_until(due);
      wire->send(message);
    });
  }

 private:
  const std::shared_ptr<Wire> wire_;
  const std::shared_ptr<Queue> sends_;
  const std::string call_, method_;
  std::atomic<bool> isGiven_ = false;
};

/// The calling side, shared by the connection, its proxies and the thread that reads.
class Caller : public std::enable_shared_from_this<Caller> {
 public:
  explicit Caller(std::string service) : service_(std::move(service)) {}

  void setHandlers(dispatch_block_t onInterruption, dispatch_block_t onInvalidation) {
    const std::lock_guard locked(lock_);
    onInterruption_ = onInterruption;
    onInvalidation_ = onInvalidation;
  }

  void call(const std::string& method, Shape shape, NSData* request, id reply, ErrorBlock onError) {
    const std::lock_guard locked(lock_);
    const std::string number = std::to_string(++lastCall_);
    pending_[number] = {shape, reply, onError};
    if (!wire_ && !isInvalid_) connect();
    if (isInvalid_) return fail(invalid);
    sends_->run(
        [wire = wire_, message = Wire::Message{
                           number, method, shape.takesRequest ? bytesOf(request) : std::string()}] {
          wire->send(message);
        });
  }

  void invalidate() {
    const std::lock_guard locked(lock_);
    if (std::exchange(isInvalidated_, true)) return;
    if (wire_) wire_->end();
    wire_.reset();
    becomeInvalid();
  }
  bool isInvalidated() {
    const std::lock_guard locked(lock_);
    return isInvalidated_;
  }

 private:
  struct Pending {
    Shape shape;
    id reply;
    ErrorBlock onError;
  };

  // With the lock held.
  void connect() {
    const int descriptor = Wire::connect(service_);
    if (descriptor < 0) return becomeInvalid();
    wire_ = std::make_shared<Wire>(descriptor);
    startThread("xpc-receive", [self = shared_from_this(), wire = wire_] {
      while (const auto message = wire->receive())
        self->queue_->run([self, message = *message] { self->answer(message); });
      self->end(wire);
    });
  }

  void becomeInvalid() {
    if (std::exchange(isInvalid_, true)) return;
    fail(invalid);
    if (onInvalidation_ != nil) queue_->run([handler = onInvalidation_] { handler(); });
    onInterruption_ = onInvalidation_ = nil;
  }

  void fail(NSInteger code) {
    for (auto& [number, pending] : std::exchange(pending_, {}))
      queue_->run([handler = pending.onError, code] { handler(connectionError(code)); });
  }

  void end(const std::shared_ptr<Wire>& wire) {
    const std::lock_guard locked(lock_);
    if (wire_ != wire) return;
    wire_.reset();
    fail(interrupted);
    if (onInterruption_ != nil) queue_->run([handler = onInterruption_] { handler(); });
  }

  void answer(const Wire::Message& message) {
    Pending call;
    {
      const std::lock_guard locked(lock_);
      const auto found = pending_.extract(message[0]);
      if (!found) return;
      call = found.mapped();
    }
    if ((message[1] == "version") == call.shape.repliesWithData) {
      return call.onError(connectionError(replyInvalid));
    }
    if (message[1] == "version") return ((VersionBlock)call.reply)(std::stoll(message[2]));
    const auto reply = (DataBlock)call.reply;
    if (message[1] == "error") return reply(nil, errorFrom(message, 2));
    reply([NSData dataWithBytes:message[2].data() length:message[2].size()], nil);
  }

  const std::string service_;
  const std::shared_ptr<Queue> queue_ = std::make_shared<Queue>("xpc-queue");
  const std::shared_ptr<Queue> sends_ = std::make_shared<Queue>("xpc-send");
  std::mutex lock_;
  std::shared_ptr<Wire> wire_;
  std::map<std::string, Pending> pending_;
  dispatch_block_t onInterruption_ = nil, onInvalidation_ = nil;
  long lastCall_ = 0;
  bool isInvalid_ = false, isInvalidated_ = false;
};

}  // namespace

@implementation NSXPCInterface {
 @public
  Protocol* _protocol;
}
+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol {
  if (protocol == nil) runtime::fault("an interface without a protocol");
  NSXPCInterface* interface = [[NSXPCInterface alloc] init];
  interface->_protocol = protocol;
  return interface;
}
@end

@interface RemoteProxy : NSObject
@end
@implementation RemoteProxy {
 @public
  std::shared_ptr<Caller> _caller;
  NSXPCInterface* _interface;
  ErrorBlock _onError;
}
@end

namespace {

/// Only the shape says how many arguments there are; the rest is what was in the registers.
void forwardToRemote(id object, SEL selector, void* first, void* second) {
  RemoteProxy* proxy = object;
  const auto name = reinterpret_cast<Selector>(selector);
  const auto shape = shapeOf(proxy->_interface->_protocol, name);
  if (!shape) runtime::fault(std::string("the interface has no ") + name);
  NSData* request = shape->takesRequest ? (__bridge NSData*)first : nil;
  id reply = (__bridge id)(shape->takesRequest ? second : first);
  if (reply == nil) runtime::fault(std::string("no reply block for ") + name);
  proxy->_caller->call(name, *shape, request, reply, proxy->_onError);
}

__attribute__((constructor(102))) void setForwarder() {
  runtime::setForwarder((__bridge ClassRecord*)[RemoteProxy class],
                        reinterpret_cast<Implementation>(forwardToRemote));
}

}  // namespace

/// Whose method this thread is in.
static thread_local __unsafe_unretained NSXPCConnection* currentConnection = nil;

@implementation NSXPCConnection {
 @public
  std::shared_ptr<Caller> _caller;  // One of the two is set.
  std::shared_ptr<Wire> _wire;
  std::shared_ptr<Queue> _sends;
  NSString* _requirement;
  BOOL _isResumed;
}
@synthesize exportedInterface = _exportedInterface, exportedObject = _exportedObject;
@synthesize remoteObjectInterface = _remoteInterface;
@synthesize interruptionHandler = _onInterruption, invalidationHandler = _onInvalidation;

- (instancetype)initWithMachServiceName:(NSString*)name options:(NSXPCConnectionOptions)options {
  if (options != 0) runtime::fault("the agent is in the user's bootstrap");
  _caller = std::make_shared<Caller>(name.UTF8String);
  return self;
}
- (void)dealloc {
  if (_caller && !_caller->isInvalidated())
    runtime::fault("a connection went without being invalidated");
}
- (void)setCodeSigningRequirement:(NSString*)requirement {
  if (_requirement != nil || _isResumed)
    runtime::fault("a requirement is set once, before resuming");
  code_signing::meets(0, requirement.UTF8String);
  _requirement = requirement;
}
- (void)resume {
  if (_isResumed) runtime::fault("a connection was resumed twice");
  _isResumed = YES;
  if (_caller) return _caller->setHandlers(_onInterruption, _onInvalidation);
  if (_exportedInterface == nil || _exportedObject == nil) runtime::fault("nothing is exported");
  for (const auto& method :
       *((__bridge ProtocolRecord*)_exportedInterface->_protocol)->instanceMethods)
    if (!runtime::implements((__bridge ObjectRecord*)_exportedObject, method.name))
      runtime::fault(std::string("the exported object lacks ") + method.name);
  startThread("xpc-connection", [self] { [self serve]; });
}
+ (NSXPCConnection*)currentConnection {
  return currentConnection;
}
- (void)scheduleSendBarrierBlock:(dispatch_block_t)block {
  if (!_sends) runtime::fault("a barrier for what the calling side sends");
  _sends->run([block] { block(); });
}
- (void)invalidate {
  if (!_caller || !_isResumed) runtime::fault("a connection is resumed before it is invalidated");
  _caller->invalidate();
}
- (id)remoteObjectProxy {
  return [self remoteObjectProxyWithErrorHandler:^(NSError*){
  }];
}
- (id)remoteObjectProxyWithErrorHandler:(ErrorBlock)handler {
  if (!_isResumed) runtime::fault("a message over a connection that was not resumed");
  if (_remoteInterface == nil) runtime::fault("a message without an interface");
  RemoteProxy* proxy = [[RemoteProxy alloc] init];
  proxy->_caller = _caller;
  proxy->_interface = _remoteInterface;
  proxy->_onError = handler;
  return proxy;
}

/// The serial queue of an accepted connection.
- (void)serve {
  const pid_t peer = _wire->peer();
  while (const auto message = _wire->receive()) {
    @autoreleasepool {
      if (_requirement != nil && !code_signing::meets(peer, _requirement.UTF8String)) {
        logLine("refused");
        break;
      }
      [self invoke:*message];
    }
  }
  _wire->end();
  @autoreleasepool {
    _exportedObject = nil;
    if (_onInvalidation != nil) _onInvalidation();
  }
}

- (void)invoke:(const Wire::Message&)message {
  const Selector selector = runtime::find(message[1]);
  const auto shape = shapeOf(_exportedInterface->_protocol, selector);
  if (!shape) return _wire->end();
  const auto reply = std::make_shared<Reply>(_wire, _sends, message[0], message[1]);
  const DataBlock withData = ^(NSData* data, NSError* error) {
    reply->give(data, error);
  };
  const VersionBlock withVersion = ^(std::int64_t version) {
    reply->give({"version", std::to_string(version)});
  };
  const id block = shape->repliesWithData ? (id)withData : (id)withVersion;
  NSData* request = [NSData dataWithBytes:message[2].data() length:message[2].size()];
  auto* target = (__bridge ObjectRecord*)_exportedObject;
  currentConnection = self;
  if (shape->takesRequest) {
    reinterpret_cast<void (*)(ObjectRecord*, Selector, void*, void*)>(objc_msgSend)(
        target, selector, (__bridge void*)request, (__bridge void*)block);
  } else {
    reinterpret_cast<void (*)(ObjectRecord*, Selector, void*)>(objc_msgSend)(target, selector,
                                                                             (__bridge void*)block);
  }
  currentConnection = nil;
}
@end

namespace {

/// The descriptor that launchd's double hands over for a service; -1 when this process is not its.
int checkIn(const std::string& service) {
  const std::string_view given = environmentOf("DOUBLE_SERVICE");
  if (given.empty()) return -1;
  const auto equals = given.find('=');
  if (given.substr(0, equals) != service) runtime::fault("the agent has no service " + service);
  const int descriptor = std::stoi(std::string(given.substr(equals + 1)));
  ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);  // No program inherits a Mach port.
  return descriptor;
}

/// Reports to the test how many objects exist, at the abstract address "objects-PID".
void tellObjects() {
  const int listening = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  const std::string name = "objects-" + std::to_string(::getpid());
  name.copy(address.sun_path + 1, name.size());
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  if (::bind(listening, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
      ::listen(listening, 1) != 0)
    return;
  for (;;) {
    const int asking = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    const std::string objects = runtime::liveObjects();
    (void)!::send(asking, objects.data(), objects.size(), MSG_NOSIGNAL);
    ::close(asking);
  }
}

}  // namespace

@implementation NSXPCListener {
  std::string _name;
}
@synthesize delegate = _delegate;
- (instancetype)initWithMachServiceName:(NSString*)name {
  _name = name.UTF8String;
  return self;
}
- (void)dealloc {
  runtime::fault("the listener was released");
}
- (void)resume {
  if (_delegate == nil) runtime::fault("a listener without a delegate rejects every connection");
  startThread("objects", tellObjects);
  const int listening = checkIn(_name);
  if (listening < 0) return logLine("not launchd's: nobody is served");
  // Nothing but its owner keeps a listener.
  __unsafe_unretained NSXPCListener* const listener = self;
  startThread("xpc-listener", [listener, listening] {
    for (;;) {
      const int accepted = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
      if (accepted < 0) continue;
      @autoreleasepool {
        [listener offer:accepted];
      }
    }
  });
}
- (void)offer:(int)accepted {
  NSXPCConnection* connection = [[NSXPCConnection alloc] init];
  connection->_wire = std::make_shared<Wire>(accepted);
  connection->_sends = std::make_shared<Queue>("xpc-send");
  const id<NSXPCListenerDelegate> delegate = _delegate;
  if (delegate == nil) runtime::fault("the listener's delegate is gone");
  if ([delegate listener:self shouldAcceptNewConnection:connection] != connection->_isResumed)
    runtime::fault("a connection is resumed if, and only if, it is accepted");
}
@end
