#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "SharedModels/Snapshot/DrainSnapshot.hpp"

namespace quenzel {

/// One incarnation of a process: a number that is used again for another executable is another process.
struct ProcessIdentity {
  std::int64_t pid = 0;
  std::string name = {};  ///< the raw name

  bool operator==(const ProcessIdentity&) const = default;
};

/// The same, borrowed from a record for a look-up.
struct ProcessIdentityView {
  std::int64_t pid = 0;
  std::string_view name = {};

  bool operator==(const ProcessIdentityView&) const = default;
};

inline ProcessIdentityView identityOf(const ProcessDrain& process) { return {process.pid, process.name}; }

struct ProcessIdentityHash {
  using is_transparent = void;
  template <typename Identity>
  std::size_t operator()(const Identity& identity) const noexcept {
    constexpr std::uint64_t goldenRatio = 0x9E3779B97F4A7C15U;  // spreads neighbouring numbers
    return std::hash<std::string_view>{}(identity.name) ^
           static_cast<std::size_t>(static_cast<std::uint64_t>(identity.pid) * goldenRatio);
  }
};

struct ProcessIdentityEqual {
  using is_transparent = void;
  template <typename Left, typename Right>
  bool operator()(const Left& left, const Right& right) const noexcept {
    return left.pid == right.pid && left.name == right.name;
  }
};

template <typename Value>
using ProcessIdentityMap =
    std::unordered_map<ProcessIdentity, Value, ProcessIdentityHash, ProcessIdentityEqual>;

/// One hidden workload, whichever snapshots it appears in.
struct HiddenIdentity {
  HiddenDrainKind kind = HiddenDrainKind::dockerContainer;
  std::string identifier = {};

  bool operator==(const HiddenIdentity&) const = default;
};

struct HiddenIdentityHash {
  std::size_t operator()(const HiddenIdentity& identity) const noexcept {
    return std::hash<std::string_view>{}(rawValue(identity.kind)) * 31 +
           std::hash<std::string_view>{}(identity.identifier);
  }
};

}  // namespace quenzel
