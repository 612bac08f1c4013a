// The exit statuses of ortime; 0 and 2 mean what they mean for the tool that records.
#pragma once

namespace orvo::inspection {

inline constexpr int kExitSuccess = 0;
inline constexpr int kExitError = 1;               ///< a line on standard error says what failed
inline constexpr int kExitVerificationFailed = 2;  ///< all was judged, and something failed
inline constexpr int kExitDisagreement = 3;        ///< recordings and report disagree
inline constexpr int kExitUsage = 64;              ///< the command line cannot be understood

}  // namespace orvo::inspection
