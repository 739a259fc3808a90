#include "Platform/Linux/RequestStream.hpp"

#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

#include <poll.h>
#include <sys/socket.h>

namespace quenzel::platform {
namespace {

constexpr std::size_t mostLineBytes = 4096;
constexpr std::string_view lineEnd = "\r\n";

/// Milliseconds as poll(2) takes them, rounded up; -1 is for ever.
template <typename TimePoint>
int pollTimeout(const std::optional<TimePoint>& deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - TimePoint::clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

std::uint64_t unsigned32(std::string_view bytes, bool littleEndian) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[littleEndian ? 3 - i : i]);
    value = value << 8 | byte;
  }
  return value;
}

}  // namespace

std::optional<std::size_t> announcedMessageSize(std::string_view fixedHeader) {
  if (fixedHeader.size() < fixedHeaderBytes) return std::nullopt;
  const char order = fixedHeader.front();
  if (order != 'l' && order != 'B') return std::nullopt;
  const std::uint64_t body = unsigned32(fixedHeader.substr(4), order == 'l');
  const std::uint64_t fields = unsigned32(fixedHeader.substr(12), order == 'l');
  const std::uint64_t size = fixedHeaderBytes + (fields + 7) / 8 * 8 + body;  // the fields are padded to 8
  return size <= mostMessageBytes ? std::optional(static_cast<std::size_t>(size)) : std::nullopt;
}

RequestStream::RequestStream(int socket, std::chrono::milliseconds patience)
    : socket_(socket), patience_(patience), authenticationDeadline_(Clock::now() + patience) {}

std::optional<std::string> RequestStream::nextLine() {
  for (;;) {
    const std::size_t end = received_.find(lineEnd);
    if (end != std::string::npos) return take(end + lineEnd.size());
    if (received_.size() >= mostLineBytes || !receive(authenticationDeadline_)) return std::nullopt;
  }
}

std::optional<std::string> RequestStream::nextMessage() {
  std::optional<Clock::time_point> deadline;
  for (;;) {
    if (received_.size() >= fixedHeaderBytes) {
      const std::optional<std::size_t> size = announcedMessageSize(received_);
      if (!size) return std::nullopt;
      if (received_.size() >= *size) return take(*size);
    }
    if (!deadline && !received_.empty()) deadline = Clock::now() + patience_;
    if (!receive(deadline)) return std::nullopt;
  }
}

bool RequestStream::receive(std::optional<Clock::time_point> deadline) {
  for (;;) {
    pollfd readable{.fd = socket_, .events = POLLIN, .revents = 0};
    const int ready = ::poll(&readable, 1, pollTimeout(deadline));
    if (ready == 0 || (ready < 0 && errno != EINTR)) return false;
    if (ready < 0) continue;
    std::array<char, 4096> block;
    const ssize_t count = ::recv(socket_, block.data(), block.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) return false;
    received_.append(block.data(), static_cast<std::size_t>(count));
    return true;
  }
}

std::string RequestStream::take(std::size_t count) {
  if (count == received_.size()) return std::exchange(received_, {});  // an idle connection holds no buffer
  std::string piece = received_.substr(0, count);
  received_.erase(0, count);
  return piece;
}

}  // namespace quenzel::platform
