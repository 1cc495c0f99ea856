#pragma once

#import <Foundation/Foundation.h>

#import "HelperProtocol/macos/HelperServicing.h"

/// What one connection exports: turns data into bytes and back around the portable service of the
/// same name, which it owns. XPC calls it on the connection's own serial queue.
@interface HelperService : NSObject <HelperServicing>
@end
