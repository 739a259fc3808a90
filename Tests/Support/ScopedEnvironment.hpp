#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Base/Environment.hpp"

namespace quenzel::testing {

/// Sets environment variables (an absent value removes one) and puts the former values back at the end of the
/// scope.
class ScopedEnvironment {
 public:
  explicit ScopedEnvironment(const std::map<std::string, std::optional<std::string>>& variables) {
    for (const auto& [name, value] : variables) set(name, value);
  }
  ~ScopedEnvironment() {
    for (auto former = former_.rbegin(); former != former_.rend(); ++former) {
      setEnvironmentValue(former->first.c_str(), former->second);
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  void set(const std::string& name, const std::optional<std::string>& value) {
    former_.emplace_back(name, environmentValue(name.c_str()));
    setEnvironmentValue(name.c_str(), value);
  }

 private:
  std::vector<std::pair<std::string, std::optional<std::string>>> former_;
};

}  // namespace quenzel::testing
