#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <variant>

#include <fmt/format.h>

#include "Base/ErrorText.hpp"
#include "Platform/Linux/BusConnection.hpp"
#include "Platform/Linux/ServiceSocket.hpp"
#include "Platform/RequestTransport.hpp"

namespace quenzel::platform {
namespace {

// The slowest request runs a tool twice, each with its time-out and two periods of grace: about 12 seconds by
// default.
constexpr auto replyTimeoutMicroseconds =
    static_cast<std::uint64_t>(std::chrono::microseconds(requestReplyTimeout).count());

std::string describe(int negativeError) { return errorText(-negativeError); }

using MessageHandle = ScopedResource<sd_bus_message*, ::sd_bus_message_unref>;

class LinuxRequestClient final : public RequestClient {
 public:
  LinuxRequestClient(std::string path, BusHandle bus) : path_(std::move(path)), bus_(std::move(bus)) {}

  RequestResult ping() override {
    return call("Ping", "", [](sd_bus_message* reply, RequestReply& result) {
      int ok = 0;
      const int read = ::sd_bus_message_read(reply, "b", &ok);
      result.success = ok != 0;
      return read;
    });
  }

  RequestResult setLowPowerMode(bool enabled) override {
    return call("SetLowPowerMode", "b", readOutcome, static_cast<int>(enabled));
  }

  RequestResult terminateProcess(std::int32_t pid) override {
    return call("TerminateProcess", "i", readOutcome, pid);
  }

 private:
  static int readOutcome(sd_bus_message* reply, RequestReply& result) {
    int success = 0;
    const char* text = "";
    const int read = ::sd_bus_message_read(reply, "bs", &success, &text);
    result.success = success != 0;
    if (*text != '\0') result.message = text;
    return read;
  }

  /// Sends the request with at most one argument, of the type named, and reads its reply.
  template <typename Reader, typename... Arguments>
  RequestResult call(const char* method, const char* types, Reader read, Arguments... arguments) {
    sd_bus_message* made = nullptr;
    int result =
        ::sd_bus_message_new_method_call(bus_.get(), &made, nullptr, busObjectPath, busInterface, method);
    const MessageHandle request(made);
    if (result >= 0) result = ::sd_bus_message_append(request.get(), types, arguments...);
    if (result < 0) return unanswered(describe(result));

    sd_bus_error error{};
    sd_bus_message* received = nullptr;
    result = ::sd_bus_call(bus_.get(), request.get(), replyTimeoutMicroseconds, &error, &received);
    const MessageHandle reply(received);
    const std::string reason = error.message ? error.message : describe(result < 0 ? result : 0);
    ::sd_bus_error_free(&error);
    if (result < 0) return unanswered(reason);

    RequestReply answer;
    result = read(reply.get(), answer);
    if (result < 0) return unanswered(describe(result));
    return answer;
  }

  TransportFailure unanswered(const std::string& reason) const {
    return {fmt::format("The daemon at {} did not answer the request: {}", path_, reason)};
  }

  std::string path_;
  BusHandle bus_;
};

}  // namespace

std::variant<std::unique_ptr<RequestClient>, TransportFailure> connectToService(
    const std::string& serviceName) {
  std::string path = serviceSocketPath(serviceName);
  auto socket = connectToServiceSocket(path);
  if (auto* failure = std::get_if<TransportFailure>(&socket)) return *failure;

  BusHandle bus = makeBusConnection(std::move(std::get<FileDescriptor>(socket)));
  const int started = bus ? startBusConnection(bus.get()) : -ENOMEM;
  if (started < 0)
    return TransportFailure{fmt::format("No daemon answers at {}: {}", path, describe(started))};
  return std::make_unique<LinuxRequestClient>(std::move(path), std::move(bus));
}

}  // namespace quenzel::platform
