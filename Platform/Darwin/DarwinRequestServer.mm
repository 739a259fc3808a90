#include <type_traits>

#import <Foundation/Foundation.h>

#import "Platform/Darwin/BatteryMetricsXPCProtocol.h"
#include "Platform/Darwin/FoundationText.hpp"
#include "Platform/RequestTransport.hpp"

using quenzel::platform::RequestHandler;

namespace {

using Reply = void (^)(BOOL success, NSString* message);

static_assert(std::is_same_v<BOOL, bool>, "another BOOL has another type encoding: another wire contract");

/// Nothing may unwind into the frames that deliver messages, and a client without a reply would wait until
/// its connection ends: whatever the handler does, there is one reply. A message that asks for none is no
/// request of the contract and is dropped: to call its block would end the daemon.
template <typename Request>
void answer(Reply reply, Request request) noexcept {
  if (!reply) return;
  @autoreleasepool {
    bool replied = false;
    try {
      request([&](bool success, const std::optional<std::string>& message) {
        NSString* const text = message ? quenzel::platform::foundationText(*message) : nil;
        replied = true;
        reply(success, text);
      });
    } catch (...) {  // NOLINT(bugprone-empty-catch): answered below
    }
    if (!replied) reply(NO, nil);
  }
}

}  // namespace

/// The listener's delegate and the object that every connection exports. Messages of one connection arrive
/// one after another on a queue of its own, never the main one.
@interface QuenzelRequestService : NSObject <NSXPCListenerDelegate, BatteryMetricsXPCProtocol>
- (instancetype)initWithHandler:(RequestHandler&)handler;
@end

@implementation QuenzelRequestService {
  RequestHandler* _handler;
}

- (instancetype)initWithHandler:(RequestHandler&)handler {
  self = [super init];
  if (self) _handler = &handler;
  return self;
}

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)connection {
  try {
    if (!_handler->shouldAcceptNewConnection()) return NO;
  } catch (...) {
    return NO;
  }
  connection.exportedInterface = [NSXPCInterface interfaceWithProtocol:@protocol(BatteryMetricsXPCProtocol)];
  connection.exportedObject = self;
  [connection resume];
  return YES;
}

- (void)pingWithReply:(void (^)(BOOL))reply {
  if (!reply) return;
  const Reply pong = ^(BOOL ok, NSString*) {
    reply(ok);
  };
  answer(pong, [&](const auto& send) { _handler->ping([&](bool ok) { send(ok, std::nullopt); }); });
}

- (void)setLowPowerModeWithEnabled:(BOOL)enabled reply:(Reply)reply {
  answer(reply, [&](const auto& send) { _handler->setLowPowerMode(enabled, send); });
}

- (void)terminateProcessWithPid:(int)pid reply:(Reply)reply {
  answer(reply, [&](const auto& send) { _handler->terminateProcess(pid, send); });
}

@end

namespace quenzel::platform {

TransportFailure serveRequests(const std::string& serviceName, RequestHandler& handler) {
  // The listener holds its delegate weakly: both stay for the life of the process.
  static QuenzelRequestService* service;
  static NSXPCListener* listener;
  @autoreleasepool {
    service = [[QuenzelRequestService alloc] initWithHandler:handler];
    listener = [[NSXPCListener alloc] initWithMachServiceName:foundationText(serviceName)];
    listener.delegate = service;
    [listener resume];
    // A run loop with nothing to wait for would return at once.
    [NSRunLoop.currentRunLoop addPort:[NSMachPort port] forMode:NSDefaultRunLoopMode];
    [NSRunLoop.currentRunLoop run];
  }
  return {"the run loop ended"};
}

}  // namespace quenzel::platform
