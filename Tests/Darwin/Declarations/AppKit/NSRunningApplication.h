#pragma once
#import <Foundation/Foundation.h>
NS_ASSUME_NONNULL_BEGIN
@interface NSRunningApplication : NSObject
@property(nullable, readonly, copy) NSString* bundleIdentifier;
@property(nullable, readonly, copy) NSURL* bundleURL;
+ (nullable instancetype)runningApplicationWithProcessIdentifier:(pid_t)pid;
@end
NS_ASSUME_NONNULL_END
