#pragma once

namespace quenzel::platform {

/// Which hardware is modelled here because the machine has none and the user asked for a model. Figures that
/// come from it are always labelled as modelled.
struct ModelledHardware {
  bool battery = false;
  bool powerCounters = false;
  bool lowPowerMode = false;  ///< the setting is kept by the model and changes nothing about the machine

  /// Whether power figures are modelled; the setting is none.
  bool any() const { return battery || powerCounters; }
  bool operator==(const ModelledHardware&) const = default;
};

/// Linux: what QZL_MODEL_HARDWARE=1 adds to this machine. macOS: nothing, ever.
ModelledHardware modelledHardware();

}  // namespace quenzel::platform
