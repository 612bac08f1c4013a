// The folder that the tool's own settings file is kept in, and default results are placed by.
#pragma once

#include <filesystem>

namespace orvo::verification {

/// Absolute path of the folder that holds verification/. Fixed when the tool was built: in a build
/// tree the source tree's own, in an installation its data folder, as seen from the program's.
[[nodiscard]] std::filesystem::path source_dir();

}  // namespace orvo::verification
