#pragma once

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

/// The daemon's three requests as they travel over XPC, for clients in Objective-C and Swift too. Selectors
/// and types are the wire contract: both ends compare them, and drop a message where they differ.
@protocol BatteryMetricsXPCProtocol <NSObject>
- (void)pingWithReply:(void (^)(BOOL ok))reply;
- (void)setLowPowerModeWithEnabled:(BOOL)enabled
                             reply:(void (^)(BOOL success, NSString* _Nullable message))reply;
- (void)terminateProcessWithPid:(int)pid reply:(void (^)(BOOL success, NSString* _Nullable message))reply;
@end

NS_ASSUME_NONNULL_END
