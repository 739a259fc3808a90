#include "Platform/Linux/BusConnection.hpp"

#include <cerrno>
#include <chrono>
#include <cstdint>

namespace quenzel::platform {
namespace {

using Clock = std::chrono::steady_clock;

// sd-bus itself would give an unfinished authentication 90 seconds.
constexpr std::chrono::seconds authenticationTimeout{5};

std::int64_t microsecondsUntil(Clock::time_point deadline) {
  return std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
}

}  // namespace

BusHandle makeBusConnection(FileDescriptor input, FileDescriptor output) {
  sd_bus* made = nullptr;
  if (::sd_bus_new(&made) < 0) return {};
  BusHandle bus(made);
  const int writes = output ? output.get() : input.get();
  if (::sd_bus_set_fd(bus.get(), input.get(), writes) < 0) return {};
  input.release();  // the connection closes both from here on
  output.release();
  if (::sd_bus_set_anonymous(bus.get(), 1) < 0) return {};
  if (::sd_bus_negotiate_fds(bus.get(), 0) < 0) return {};
  return bus;
}

int startBusConnection(sd_bus* bus) {
  const Clock::time_point deadline = Clock::now() + authenticationTimeout;
  if (const int started = ::sd_bus_start(bus); started < 0) return started;
  while (::sd_bus_is_ready(bus) <= 0) {
    const int processed = ::sd_bus_process(bus, nullptr);
    if (processed < 0) return processed;
    if (processed > 0) continue;
    const std::int64_t left = microsecondsUntil(deadline);
    if (left <= 0) return -ETIMEDOUT;
    const int waited = ::sd_bus_wait(bus, static_cast<std::uint64_t>(left));
    if (waited < 0 && waited != -EINTR) return waited;
  }
  return 0;
}

}  // namespace quenzel::platform
