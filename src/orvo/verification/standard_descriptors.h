// File descriptors 0 to 2 belong to the console, also where the caller closed them.
#pragma once

namespace orvo::verification {

/// Opens each of them that is closed on /dev/null: a file of ours that got its number would take
/// in what is written to the console.
void occupy_standard_descriptors();

}  // namespace orvo::verification
