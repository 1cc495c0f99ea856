// The values of Foundation that the front end uses.

#import <Foundation/Foundation.h>

#include <sys/auxv.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>

#include <utf8proc.h>

#import "Foundation+Doubles.h"
#include "Runtime.h"

#pragma clang diagnostic ignored "-Wincomplete-implementation"
#pragma clang diagnostic ignored "-Wobjc-designated-initializers"
#pragma clang diagnostic ignored "-Wobjc-missing-super-calls"
#pragma clang diagnostic ignored "-Wobjc-property-implementation"
#pragma clang diagnostic ignored "-Wobjc-protocol-method-implementation"
#pragma clang diagnostic ignored "-Wprotocol"

NSErrorUserInfoKey const NSLocalizedDescriptionKey = @"NSLocalizedDescription";

@interface HeapString : NSString
@end
/// A literal, as clang lays it out: nothing may come before its fields.
@interface ConstantString : NSString
@end

@implementation NSString
@dynamic length;
+ (instancetype)alloc {
  return self == [NSString class] ? static_cast<id>([HeapString alloc]) : [super alloc];
}
- (instancetype)init {
  return self;
}
- (NSString*)description {
  return self;
}
- (BOOL)isEqual:(id)other {
  return [other isKindOfClass:[NSString class]] &&
         std::strcmp(self.UTF8String, static_cast<NSString*>(other).UTF8String) == 0;
}
@end

@implementation ConstantString {
  int _flags;
  const char* _bytes;
  long _length;
}
- (const char*)UTF8String {
  return _bytes;
}
- (NSUInteger)length {
  return static_cast<NSUInteger>(_length);
}
- (NSUInteger)lengthOfBytesUsingEncoding:(NSStringEncoding)enc {
  return self.length;
}
@end

@implementation HeapString {
  std::string _text;
}
- (instancetype)initWithBytes:(const void*)bytes
                       length:(NSUInteger)length
                     encoding:(NSStringEncoding)encoding {
  if (encoding != NSUTF8StringEncoding) runtime::fault("a string in another encoding than UTF-8");
  _text.assign(static_cast<const char*>(bytes), length);
  const auto* at = reinterpret_cast<const utf8proc_uint8_t*>(_text.data());
  for (auto left = static_cast<utf8proc_ssize_t>(length); left > 0;) {
    utf8proc_int32_t scalar = 0;
    const auto used = utf8proc_iterate(at, left, &scalar);
    if (used <= 0) return nil;
    at += used;
    left -= used;
  }
  return self;
}
- (const char*)UTF8String {
  return _text.c_str();
}
- (NSUInteger)length {
  return _text.size();
}
- (NSUInteger)lengthOfBytesUsingEncoding:(NSStringEncoding)enc {
  return _text.size();
}
@end

@implementation NSData {
  std::string _bytes;
}
+ (instancetype)dataWithBytes:(const void*)bytes length:(NSUInteger)length {
  if (bytes == nullptr && length != 0) runtime::fault("data without bytes");
  NSData* data = [[self alloc] init];
  data->_bytes.assign(static_cast<const char*>(bytes), length);
  return data;
}
- (NSUInteger)length {
  return _bytes.size();
}
- (const void*)bytes {
  // As the real one may: no bytes, no address.
  return _bytes.empty() ? nullptr : _bytes.data();
}
@end

@implementation NSDictionary {
  std::map<std::string, id> _entries;
}
+ (instancetype)dictionaryWithObjects:(const id[])objects
                              forKeys:(const id<NSCopying>[])keys
                                count:(NSUInteger)count {
  NSDictionary* dictionary = [[self alloc] init];
  for (NSUInteger i = 0; i < count; ++i) {
    if (objects[i] == nil || keys[i] == nil) runtime::fault("nil in a dictionary");
    dictionary->_entries[static_cast<NSString*>(keys[i]).UTF8String] = objects[i];
  }
  return dictionary;
}
- (instancetype)init {
  return self;
}
- (NSUInteger)count {
  return _entries.size();
}
- (id)objectForKeyedSubscript:(id)key {
  const auto found = _entries.find(static_cast<NSString*>(key).UTF8String);
  return found == _entries.end() ? nil : found->second;
}
- (const std::map<std::string, id>&)entries {
  return _entries;
}
@end

@implementation NSError {
  NSString* _domain;
  NSInteger _code;
  NSDictionary* _userInfo;
}
+ (instancetype)errorWithDomain:(NSErrorDomain)domain
                           code:(NSInteger)code
                       userInfo:(NSDictionary*)userInfo {
  return [[self alloc] initWithDomain:domain code:code userInfo:userInfo];
}
- (instancetype)initWithDomain:(NSErrorDomain)domain
                          code:(NSInteger)code
                      userInfo:(NSDictionary*)userInfo {
  if (domain.length == 0) runtime::fault("an error without a domain");
  _domain = domain;
  _code = code;
  _userInfo = userInfo != nil ? userInfo : [[NSDictionary alloc] init];
  return self;
}
- (NSErrorDomain)domain {
  return _domain;
}
- (NSInteger)code {
  return _code;
}
- (NSDictionary*)userInfo {
  return _userInfo;
}
- (NSString*)localizedDescription {
  NSString* text = _userInfo[NSLocalizedDescriptionKey];
  return text != nil ? text : @"The operation couldn’t be completed.";
}
- (NSString*)description {
  return stringOf(std::string("Error Domain=") + _domain.UTF8String + " Code=" +
                  std::to_string(_code) + " \"" + self.localizedDescription.UTF8String + "\"");
}
@end

@implementation NSURL {
 @public
  std::string _path;
}
- (const char*)fileSystemRepresentation {
  return _path.c_str();
}
@end

extern "C" {
// The section that a program's information property list is in, if it has one.
extern const char __start_info_plist[] __attribute__((weak));
extern const char __stop_info_plist[] __attribute__((weak));
}

@implementation NSBundle
+ (NSBundle*)mainBundle {
  static NSBundle* const bundle = [[NSBundle alloc] init];
  return bundle;
}
- (NSURL*)executableURL {
  // As the program was started: another file may stand there by now.
  NSURL* url = [[NSURL alloc] init];
  url->_path = std::filesystem::absolute(reinterpret_cast<const char*>(::getauxval(AT_EXECFN)));
  return url;
}
// The program is not the main one of the bundle around it, so its own property list comes first.
- (NSDictionary*)infoDictionary {
  const std::string_view form = environmentOf("DOUBLE_INFO");
  const std::string_view version = environmentOf("DOUBLE_VERSION");
  if (__start_info_plist == nullptr && !version.empty())
    return @{@"CFBundleVersion" : stringOf(version)};
  if (form == "absent" || __start_info_plist == nullptr) return nil;
  if (form == "data") return @{@"CFBundleShortVersionString" : [NSData dataWithBytes:"1" length:1]};
  const std::string text(__start_info_plist, __stop_info_plist);
  static const std::regex entry(R"(<key>([^<]*)</key>\s*<string>([^<]*)</string>)");
  std::vector<NSString*> keys, values;
  for (std::sregex_iterator it(text.begin(), text.end(), entry), end; it != end; ++it) {
    keys.push_back(stringOf((*it)[1].str()));
    values.push_back(stringOf((*it)[2].str()));
  }
  return [NSDictionary dictionaryWithObjects:values.data() forKeys:keys.data() count:keys.size()];
}
@end

// A file for each key.
@implementation NSUserDefaults
+ (NSUserDefaults*)standardUserDefaults {
  static NSUserDefaults* const defaults = [[NSUserDefaults alloc] init];
  return defaults;
}
- (NSString*)stringForKey:(NSString*)key {
  std::ifstream file(std::filesystem::path(environmentOf("DOUBLE_DEFAULTS")) / key.UTF8String);
  std::string text;
  return std::getline(file, text) ? stringOf(text) : nil;
}
- (void)setObject:(id)value forKey:(NSString*)key {
  const auto path = std::filesystem::path(environmentOf("DOUBLE_DEFAULTS")) / key.UTF8String;
  if (value == nil) return void(std::filesystem::remove(path));
  std::ofstream(path) << static_cast<NSString*>(value).UTF8String << "\n";
}
@end

NSString* stringOf(std::string_view text) {
  return [[NSString alloc] initWithBytes:text.data()
                                  length:text.size()
                                encoding:NSUTF8StringEncoding];
}

std::string_view environmentOf(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}
