// SMAppService, which asks launchd's double.

#import <ServiceManagement/ServiceManagement.h>

#import "Foundation+Doubles.h"
#include "Queue.h"
#include "Runtime.h"
#include "Wire.h"

#pragma clang diagnostic ignored "-Wobjc-property-implementation"

namespace {

/// launchd's answer; without a launchd, as for a program outside an application bundle.
Wire::Message ask(const std::string& question, NSString* agent) {
  const int descriptor = Wire::connect("launchd");
  if (descriptor < 0) return {"3", "Operation not\npermitted"};
  Wire wire(descriptor);
  wire.send({question, agent.UTF8String});
  return wire.receive().value_or(Wire::Message{"3", "Connection lost"});
}

}  // namespace

@implementation SMAppService {
  NSString* _name;
}
+ (instancetype)agentServiceWithPlistName:(NSString*)plistName {
  SMAppService* service = [[SMAppService alloc] init];
  service->_name = plistName;
  return service;
}
- (SMAppServiceStatus)status {
  return static_cast<SMAppServiceStatus>(std::stol(ask("status", _name)[0]));
}
- (void)unregisterWithCompletionHandler:(void (^)(NSError*))handler {
  logLine(std::string("unregister ") + _name.UTF8String);
  startThread("unregister", [name = _name, handler] {
    ask("unregister", name);
    handler(nil);
  });
}
- (BOOL)registerAndReturnError:(NSError* __autoreleasing*)error {
  logLine(std::string("register ") + _name.UTF8String);
  const Wire::Message answer = ask("register", _name);
  if (answer[0] == "1") return YES;
  if (error != nullptr)
    *error = [NSError errorWithDomain:@"SMAppServiceErrorDomain"
                                 code:1
                             userInfo:@{NSLocalizedDescriptionKey : stringOf(answer[1])}];
  return NO;
}
@end
