#import "HelperProtocol/macos/FoundationValues.h"

namespace tessaloom {

NSString* const replyErrorKindKey = @"kind";

NSData* dataFromBytes(const Bytes& bytes) {
  return [NSData dataWithBytes:bytes.data() length:bytes.size()];
}

Bytes bytesFromData(NSData* data) {
  if (data.length == 0) return {};
  return {static_cast<const char*>(data.bytes), data.length};
}

NSString* stringFromText(std::string_view text) {
  NSString* string = [[NSString alloc] initWithBytes:text.data()
                                              length:text.size()
                                            encoding:NSUTF8StringEncoding];
  return string != nil ? string : @"";
}

std::string textFromString(NSString* string) {
  const char* text = string.UTF8String;
  if (text == nullptr) return {};
  return {text, [string lengthOfBytesUsingEncoding:NSUTF8StringEncoding]};
}

NSError* errorFromReplyError(const ReplyError& error) {
  NSString* description = stringFromText(error.localizedDescription);
  NSDictionary<NSErrorUserInfoKey, id>* userInfo = @{NSLocalizedDescriptionKey : description};
  if (error.kind) {
    userInfo = @{
      NSLocalizedDescriptionKey : description,
      replyErrorKindKey : stringFromText(*error.kind),
    };
  }
  return [NSError errorWithDomain:stringFromText(error.domain) code:error.code userInfo:userInfo];
}

}  // namespace tessaloom
