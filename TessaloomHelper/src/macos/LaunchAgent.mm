#import "LaunchAgent.h"

#import <ServiceManagement/ServiceManagement.h>

#import "HelperProtocol/macos/FoundationValues.h"
#include "Log.h"

namespace tessaloom {

namespace {

NSString* const propertyListName = @"com.brindlemoor.Tessaloom.helper.plist";

}  // namespace

void registerLaunchAgent() {
  SMAppService* agent = [SMAppService agentServiceWithPlistName:propertyListName];
  if (agent.status == SMAppServiceStatusEnabled) return;

  NSError* error = nil;
  if ([agent registerAndReturnError:&error]) return;
  logLine("SMAppService.agent register failed", textFromString(error.description));
}

}  // namespace tessaloom
