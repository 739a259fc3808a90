# Large headers that most sources include would take two thirds of the check's time. What a source forgets to include
# shows in the other builds.
cmake_language(DEFER CALL target_precompile_headers QuenzelSharedModels PRIVATE <fmt/format.h> <nlohmann/json.hpp>)
cmake_language(DEFER CALL target_precompile_headers QuenzelStorage REUSE_FROM QuenzelSharedModels)
cmake_language(DEFER CALL target_precompile_headers QuenzelMetricsCollectors REUSE_FROM QuenzelSharedModels)
cmake_language(DEFER CALL target_precompile_headers QuenzelMonitorCommands PRIVATE <CLI/CLI.hpp> <fmt/format.h>
               <nlohmann/json.hpp>)
