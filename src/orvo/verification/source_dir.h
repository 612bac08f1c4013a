// The source tree that the tool was built from.
#pragma once

#include <filesystem>

namespace orvo::verification {

/// Absolute path of the folder that holds verification/, fixed when the tool was built.
[[nodiscard]] std::filesystem::path source_dir();

}  // namespace orvo::verification
