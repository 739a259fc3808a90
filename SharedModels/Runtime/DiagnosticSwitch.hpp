#pragma once

namespace quenzel {

/// Whether a diagnosis aid is on: the environment variable equals "1" exactly, or the flag file exists.
/// Looked at afresh at each call, so that a user may switch it on in a running process.
bool isDiagnosticSwitchOn(const char* environmentName, const char* flagFile);

}  // namespace quenzel
