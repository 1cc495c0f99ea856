#pragma once

#import <Foundation/Foundation.h>

/// Accepts every connection, and has the system refuse the messages of a peer that is not the
/// editor. Each connection is served by a HelperService of its own.
@interface ListenerDelegate : NSObject <NSXPCListenerDelegate>
@end
