#pragma once

#import <Foundation/Foundation.h>

#include <map>
#include <string>
#include <string_view>

/// What the doubles ask of each other.
@interface NSDictionary (Doubles)
- (const std::map<std::string, id>&)entries;
@end

NSString* stringOf(std::string_view text);

/// A variable of the environment, which configures the doubles; empty when unset. The programs
/// themselves read none.
std::string_view environmentOf(const char* name);
