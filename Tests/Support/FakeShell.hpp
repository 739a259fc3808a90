#pragma once

#include <deque>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "Base/Mutex.hpp"
#include "MetricsCollectors/ShellRunning.hpp"

namespace quenzel::testing {

/// Runs nothing: answers each command by its executable, and remembers what it was asked.
///
/// Replies of one executable are given out in the order they were set, the last of them again and again. A
/// command without a reply fails to launch, as a missing executable would. Thread-safe.
class FakeShell final : public ShellRunning {
 public:
  using Reply = std::variant<ShellResult, ShellRunnerError>;
  using Call = std::pair<std::string, std::vector<std::string>>;  // the executable, its arguments

  /// Adds one reply: a result to return, or an error to throw.
  FakeShell& reply(const std::string& executable, Reply reply) {
    const MutexLock guard(lock_);
    replies_[executable].push_back(std::move(reply));
    return *this;
  }

  /// Adds a run that succeeds with that output.
  FakeShell& output(const std::string& executable, std::string text) {
    return reply(executable, ShellResult{0, std::move(text), ""});
  }

  std::vector<Call> calls() const {
    const MutexLock guard(lock_);
    return calls_;
  }

  ShellResult run(const std::string& executable, const std::vector<std::string>& arguments) const override {
    const MutexLock guard(lock_);
    calls_.push_back({executable, arguments});
    std::deque<Reply>& replies = replies_[executable];
    if (replies.empty()) throw ShellRunnerError::failedToLaunch("No reply is set for " + executable + ".");
    const Reply reply = replies.front();
    if (replies.size() > 1) replies.pop_front();
    if (const auto* error = std::get_if<ShellRunnerError>(&reply)) throw *error;
    return std::get<ShellResult>(reply);
  }

 private:
  mutable Mutex lock_;
  mutable std::map<std::string, std::deque<Reply>> replies_ GUARDED_BY(lock_);
  mutable std::vector<Call> calls_ GUARDED_BY(lock_);
};

}  // namespace quenzel::testing
