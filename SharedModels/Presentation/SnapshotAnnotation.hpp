#pragma once

#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "SharedModels/Presentation/ProcessPresentationContext.hpp"

// Writing the names of a context into the rows of a snapshot, and reading them back. Pure functions.

namespace quenzel::ProcessAttributionPresentationService {

// What annotateSnapshot stored, trimmed; absent when it is missing or blank.

std::optional<std::string> storedDisplayName(const ProcessDrain& process);
std::optional<std::string> storedCanonicalName(const ProcessDrain& process);
std::optional<std::string> storedProcessGroupKey(const ProcessDrain& process);

/// The key that a process's rows are grouped by, in lower case behind its prefix: "bundle:" and the bundle
/// identifier for an executable in an application bundle, without an identifier "app:" and the bundle's path;
/// "exec:" and the path of another executable; else "name:" and the canonical name, or "raw:" and the name.
std::string processGroupKeySource(const ProcessDrain& process, std::string_view canonicalName);

/// The name to store as display name: the context's for the process, else the stored one, else the one
/// derived from the row.
std::string displayNameToStore(const ProcessDrain& process, const ProcessPresentationContext& context);

/// The name that the row is grouped and shown under (its canonical name): the context's, else the stored one,
/// else displayNameToStore. With a context that knows the process, or stored names, it costs a look-up and
/// builds no text.
/// @param scratch holds the name where it had to be built
/// @return a view into the context, the row or the scratch
std::string_view visibleName(const ProcessDrain& process, const ProcessPresentationContext& context,
                             std::string& scratch);

/// The row with displayName, canonicalName and processGroupKey filled; a stored group key stays, else it is
/// that of the hosting application, else the process's own. All else stays.
ProcessDrain annotateProcess(ProcessDrain process, const ProcessPresentationContext& context);

/// A copy in which every row is annotated.
DrainSnapshot annotateSnapshot(const DrainSnapshot& snapshot, const ProcessPresentationContext& context);
/// The same with the context of these snapshots, oldest first.
DrainSnapshot annotateSnapshot(const DrainSnapshot& snapshot, std::span<const DrainSnapshot> recentSnapshots);
DrainSnapshot annotateSnapshot(const DrainSnapshot& snapshot,
                               std::initializer_list<DrainSnapshot> recentSnapshots);

}  // namespace quenzel::ProcessAttributionPresentationService
