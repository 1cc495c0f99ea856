#import <Foundation/Foundation.h>

#include <signal.h>

#import "HelperProcess.h"
#include "HelperProtocol/HelperConstants.h"
#import "HelperProtocol/macos/FoundationValues.h"
#import "LaunchAgent.h"
#import "ListenerDelegate.h"
#include "StandardOptions.h"

int main(int argc, char** argv) {
  if (argc > 1) {
    const auto status = tessaloom::handleStandardOption(argv[1], "TessaloomHelper", "launchd");
    if (status) return *status;
  }
  @autoreleasepool {
    // An engine may close its input before all of it is written, and its end must be waited for.
    // The helper may have been started with either signal set otherwise.
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGCHLD, SIG_DFL);

    tessaloom::registerLaunchAgent();
    tessaloom::serviceContext();
    tessaloom::endOnSignals();

    // The listener refers to its delegate weakly; both are kept for the life of the process.
    static ListenerDelegate* const delegate = [[ListenerDelegate alloc] init];
    static NSXPCListener* const listener = [[NSXPCListener alloc]
        initWithMachServiceName:tessaloom::stringFromText(
                                    tessaloom::HelperConstants::machServiceName)];
    listener.delegate = delegate;
    [listener resume];
  }
  [NSRunLoop.mainRunLoop run];
  return 0;
}
