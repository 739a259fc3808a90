#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quenzel::platform {

/// The largest D-Bus message, header included, that a client may send. The requests take some hundred bytes.
inline constexpr std::size_t mostMessageBytes = std::size_t{64} * 1024;

/// The fixed part of a message's header ("Message Format" of the D-Bus protocol).
inline constexpr std::size_t fixedHeaderBytes = 16;

/// The size of a whole message as its fixed header announces it; none when that is no header, or announces
/// more than mostMessageBytes.
std::optional<std::size_t> announcedMessageSize(std::string_view fixedHeader);

/// What a client of the daemon sends, cut into the pieces that sd-bus may see: the library would believe any
/// header up to 128 MiB and wait for the rest for ever. First the lines of the authentication, which has to
/// be over within `patience`; then whole messages, each of which has to be complete within `patience` of its
/// first byte. Between messages a client may be silent for as long as it likes, without a wake-up.
///
/// For one thread. Reads from the socket and does not own it.
class RequestStream {
 public:
  RequestStream(int socket, std::chrono::milliseconds patience);

  /// The next line with its CR LF. None, as below: the client has left, broken a bound or run out of time.
  std::optional<std::string> nextLine();
  std::optional<std::string> nextMessage();

 private:
  using Clock = std::chrono::steady_clock;

  /// Waits for bytes and takes some; false when none come any more or none came in time.
  bool receive(std::optional<Clock::time_point> deadline);
  std::string take(std::size_t count);

  const int socket_;
  const std::chrono::milliseconds patience_;
  const Clock::time_point authenticationDeadline_;
  std::string received_;
};

}  // namespace quenzel::platform
