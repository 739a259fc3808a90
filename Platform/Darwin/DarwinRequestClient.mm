#include <future>

#import <Foundation/Foundation.h>

#import "Platform/Darwin/BatteryMetricsXPCProtocol.h"
#include "Platform/Darwin/FoundationText.hpp"
#include "Platform/RequestTransport.hpp"

namespace quenzel::platform {
namespace {

using Daemon = id<BatteryMetricsXPCProtocol>;
using Reply = void (^)(BOOL success, NSString* message);
using Outcome = std::promise<RequestResult>;

/// Ends the wait for an outcome; what comes after the first one is dropped. Nothing may unwind into the
/// frames that deliver messages.
template <typename MakeResult>
void settle(Outcome& outcome, MakeResult makeResult) noexcept {
  try {
    outcome.set_value(makeResult());
  } catch (...) {  // NOLINT(bugprone-empty-catch)
    // Settled already; or there is no memory, and then the wait ends by itself.
  }
}

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
  /// One of the two blocks runs on the connection's own queue, maybe when nobody waits any more and this
  /// client is gone: they share the outcome and hold nothing else.
  template <typename Request>
  RequestResult call(Request request) {
    @autoreleasepool {
      const auto outcome = std::make_shared<Outcome>();
      std::future<RequestResult> result = outcome->get_future();
      Daemon const daemon = [connection_ remoteObjectProxyWithErrorHandler:^(NSError* error) {
        settle(*outcome, [&]() -> RequestResult {
          return TransportFailure{textOf(error.localizedDescription).value_or("unknown error")};
        });
      }];
      request(daemon, ^(BOOL success, NSString* message) {
        settle(*outcome, [&]() -> RequestResult { return RequestReply{success, textOf(message)}; });
      });
      if (result.wait_for(requestReplyTimeout) != std::future_status::ready)
        return unanswered("no reply within a minute");
      RequestResult settled = result.get();
      if (const auto* failure = std::get_if<TransportFailure>(&settled)) return unanswered(failure->message);
      return settled;
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
