#include "orvo/verification/source_dir.h"

namespace orvo::verification {

std::filesystem::path source_dir() { return ORVO_SOURCE_DIR; }

}  // namespace orvo::verification
