#pragma once

#include <string_view>

#include "SharedModels/Snapshot/DrainSnapshot.hpp"

namespace quenzel {

// Where a machine lacks a battery or power counters, the stand-ins of the system's tools can model them. What
// was made from a model stays marked as such in the history.

/// The source flag of a row whose watts come from modelled hardware.
inline constexpr std::string_view modelledSourceFlag = "modelled";

/// The serial number of a modelled battery.
inline constexpr std::string_view modelledSerialNumber = "MODELLED";

}  // namespace quenzel
