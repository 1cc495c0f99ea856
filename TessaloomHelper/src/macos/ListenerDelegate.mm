#import "ListenerDelegate.h"

#import "HelperProtocol/macos/HelperServicing.h"
#import "HelperService.h"

namespace {

/// The editor's identifier, signed by the App Store, by TestFlight or with the maker's certificate.
NSString* const peerRequirement =
    @"identifier \"com.brindlemoor.Tessaloom\" and anchor apple generic and (certificate "
    @"leaf[field.1.2.840.113635.100.6.1.9] or certificate leaf[field.1.2.840.113635.100.6.1.25.1] "
    @"or certificate leaf[subject.OU] = \"Q4ZK8MRB21\")";

}  // namespace

@implementation ListenerDelegate

- (BOOL)listener:(NSXPCListener*)listener
    shouldAcceptNewConnection:(NSXPCConnection*)newConnection {
  [newConnection setCodeSigningRequirement:peerRequirement];
  newConnection.exportedInterface =
      [NSXPCInterface interfaceWithProtocol:@protocol(HelperServicing)];
  newConnection.exportedObject = [[HelperService alloc] init];
  [newConnection resume];
  return YES;
}

@end
