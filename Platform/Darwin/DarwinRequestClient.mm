#include <utility>

#import <Foundation/Foundation.h>

#import "Platform/Darwin/BatteryMetricsXPCProtocol.h"
#include "Platform/Darwin/FoundationText.hpp"
#include "Platform/Darwin/PropertyConversion.hpp"
#include "Platform/RequestTransport.hpp"

namespace quenzel::platform {
namespace {

using Daemon = id<BatteryMetricsXPCProtocol>;
using Reply = void (^)(BOOL success, NSString* message);

std::optional<std::string> textOf(NSString* string) { return platform::textOf((__bridge CFTypeRef)string); }

class DarwinRequestClient final : public RequestClient {
 public:
  explicit DarwinRequestClient(const std::string& serviceName) : serviceName_(serviceName) {
    @autoreleasepool {
      connection_ = [[NSXPCConnection alloc] initWithMachServiceName:foundationText(serviceName)
                                                             options:NSXPCConnectionPrivileged];
      connection_.remoteObjectInterface =
          [NSXPCInterface interfaceWithProtocol:@protocol(BatteryMetricsXPCProtocol)];
      [connection_ resume];
    }
  }
  DarwinRequestClient(const DarwinRequestClient&) = delete;
  DarwinRequestClient& operator=(const DarwinRequestClient&) = delete;
  ~DarwinRequestClient() override { [connection_ invalidate]; }

  RequestResult ping() override {
    return call([](Daemon daemon, Reply reply) {
      [daemon pingWithReply:^(BOOL ok) {
        reply(ok, nil);
      }];
    });
  }

  RequestResult setLowPowerMode(bool enabled) override {
    return call([=](Daemon daemon, Reply reply) { [daemon setLowPowerModeWithEnabled:enabled reply:reply]; });
  }

  RequestResult terminateProcess(std::int32_t pid) override {
    return call([=](Daemon daemon, Reply reply) { [daemon terminateProcessWithPid:pid reply:reply]; });
  }

 private:
  /// A message to a synchronous proxy returns when one of the two blocks has run, on this thread.
  template <typename Request>
  RequestResult call(Request request) {
    @autoreleasepool {
      __block RequestResult result = unanswered("no reply");
      Daemon const daemon = [connection_ synchronousRemoteObjectProxyWithErrorHandler:^(NSError* error) {
        result = unanswered(textOf(error.localizedDescription).value_or("unknown error"));
      }];
      request(daemon, ^(BOOL success, NSString* message) {
        result = RequestReply{success, textOf(message)};
      });
      return std::move(result);
    }
  }

  TransportFailure unanswered(const std::string& reason) const {
    return {"The daemon " + serviceName_ + " did not answer the request: " + reason};
  }

  const std::string serviceName_;
  NSXPCConnection* connection_;
};

}  // namespace

/// A connection is made with its first message; that it can't be is told then.
std::variant<std::unique_ptr<RequestClient>, TransportFailure> connectToService(
    const std::string& serviceName) {
  return std::make_unique<DarwinRequestClient>(serviceName);
}

}  // namespace quenzel::platform
