#pragma once

#import <Foundation/Foundation.h>

#include <string>
#include <string_view>

#include "HelperProtocol/Reply.h"

namespace tessaloom {

// The protocol's values as Foundation's objects, and back. Safe from any thread.

NSData* _Nonnull dataFromBytes(const Bytes& bytes);

/// A copy; nil gives no bytes.
Bytes bytesFromData(NSData* _Nullable data);

/// The text must be valid UTF-8; anything else gives the empty string.
NSString* _Nonnull stringFromText(std::string_view text);

/// UTF-8; nil gives the empty text.
std::string textFromString(NSString* _Nullable string);

/// The key of an error's user information that holds the kind of a generation failure.
extern NSString* const _Nonnull replyErrorKindKey;

/// The error object of a reply: domain, code, localized description and, when there is one, kind.
NSError* _Nonnull errorFromReplyError(const ReplyError& error);

}  // namespace tessaloom
