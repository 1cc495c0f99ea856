#import "LaunchAgent.h"

#import <ServiceManagement/ServiceManagement.h>

#include <string>

#import "HelperProtocol/macos/FoundationValues.h"
#include "StandardError.h"
#include "TLFoundation/DisplayString.h"

namespace tessaloom {

namespace {

NSString* const propertyListName = @"com.brindlemoor.Tessaloom.helper.plist";

/// An error's description may quote others over several lines.
constexpr std::int64_t descriptionLimit = 4'096;

}  // namespace

void registerLaunchAgent() {
  SMAppService* agent = [SMAppService agentServiceWithPlistName:propertyListName];
  if (agent.status == SMAppServiceStatusEnabled) return;

  NSError* error = nil;
  if ([agent registerAndReturnError:&error]) return;
  const std::string description =
      DisplayString::singleLine(textFromString(error.description), descriptionLimit);
  writeToStandardError("helper: SMAppService.agent register failed: " + description + "\n");
}

}  // namespace tessaloom
