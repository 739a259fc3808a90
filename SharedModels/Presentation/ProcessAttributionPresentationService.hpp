#pragma once

// The names that a user sees and the keys that processes are grouped by, derived from the rows of snapshots
// alone. Stateless; every function is pure and may run on any thread, and none fails: what is missing falls
// through to the raw name. To name a history: build a context (ProcessPresentationContext.hpp), then annotate
// snapshots with it (SnapshotAnnotation.hpp) or fold their rows (ProcessAggregation.hpp).

#include "SharedModels/Presentation/ProcessAggregation.hpp"
#include "SharedModels/Presentation/ProcessDrainPresentation.hpp"
#include "SharedModels/Presentation/ProcessNaming.hpp"
#include "SharedModels/Presentation/ProcessPresentationContext.hpp"
#include "SharedModels/Presentation/SnapshotAnnotation.hpp"
#include "SharedModels/Presentation/SyntheticPID.hpp"
