#pragma once
#include <stdint.h>
#ifdef __OBJC__
#define BRIDGED(type) __attribute__((objc_bridge(type)))
#else
#define BRIDGED(type)
#endif
#ifdef __cplusplus
extern "C" {
#endif
typedef signed long CFIndex;
typedef unsigned long CFTypeID;
typedef unsigned char Boolean, UInt8;
typedef uint32_t CFStringEncoding;
typedef CFIndex CFNumberType;
typedef double CFAbsoluteTime;
typedef struct { CFIndex location, length; } CFRange;
typedef const void* CFTypeRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct BRIDGED(NSString) __CFString* CFStringRef;
typedef const struct BRIDGED(NSNumber) __CFNumber* CFNumberRef;
typedef const struct BRIDGED(NSNumber) __CFBoolean* CFBooleanRef;
typedef const struct BRIDGED(NSData) __CFData* CFDataRef;
typedef const struct BRIDGED(NSDate) __CFDate* CFDateRef;
typedef const struct BRIDGED(NSArray) __CFArray* CFArrayRef;
typedef const struct BRIDGED(NSDictionary) __CFDictionary* CFDictionaryRef;
typedef struct BRIDGED(NSMutableDictionary) __CFDictionary* CFMutableDictionaryRef;
enum { kCFStringEncodingUTF8 = 0x08000100 };
enum { kCFNumberSInt64Type = 4, kCFNumberDoubleType = 13 };
extern const CFAllocatorRef kCFAllocatorDefault;
void CFRelease(CFTypeRef reference);
CFTypeID CFGetTypeID(CFTypeRef value);
CFTypeID CFStringGetTypeID(void);
CFTypeID CFNumberGetTypeID(void);
CFTypeID CFBooleanGetTypeID(void);
CFTypeID CFDataGetTypeID(void);
CFTypeID CFDateGetTypeID(void);
CFTypeID CFArrayGetTypeID(void);
CFTypeID CFDictionaryGetTypeID(void);
Boolean CFNumberIsFloatType(CFNumberRef number);
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* value);
Boolean CFBooleanGetValue(CFBooleanRef boolean);
CFIndex CFDataGetLength(CFDataRef data);
const UInt8* CFDataGetBytePtr(CFDataRef data);
CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef date);
CFIndex CFArrayGetCount(CFArrayRef array);
const void* CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index);
CFIndex CFDictionaryGetCount(CFDictionaryRef dictionary);
const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key);
void CFDictionaryGetKeysAndValues(CFDictionaryRef dictionary, const void** keys, const void** values);
CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char* text, CFStringEncoding encoding);
CFIndex CFStringGetLength(CFStringRef string);
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);
CFIndex CFStringGetBytes(CFStringRef string, CFRange range, CFStringEncoding encoding, UInt8 lossByte,
                         Boolean isExternal, UInt8* buffer, CFIndex size, CFIndex* used);
static inline CFRange CFRangeMake(CFIndex location, CFIndex length) {
  CFRange range = {location, length};
  return range;
}
#define CFSTR(literal) ((CFStringRef)__builtin___CFStringMakeConstantString("" literal ""))
#ifdef __cplusplus
}
#endif
