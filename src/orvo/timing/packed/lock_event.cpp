#include "orvo/timing/lock_event.h"

#include <locale>
#include <sstream>

#include "orvo/timing/packed/format.h"

namespace orvo::timing {

std::string describe(const LockEvent& event, const StreamFileHeader& header) {
  const detail::PackedFormat format(header);
  using Kind = LockEvent::Kind;
  std::ostringstream line;
  line.imbue(std::locale::classic());
  switch (event.kind) {
    case Kind::locked:
      line << "locked bits=" << format.bits << " drop_bytes=" << event.drop_bytes
           << " bit_offset=" << event.bit_offset << " raw_bytes=" << event.buffer_bytes;
      break;
    case Kind::no_alignment:
      line << "no alignment bits=" << format.bits << " width=" << format.width
           << " raw_bytes=" << event.buffer_bytes;
      break;
    case Kind::rejected_alignment:
      line << "reject internal alignment drop_bytes=" << event.drop_bytes
           << " bit_offset=" << event.bit_offset << " synced=" << event.synced << '/'
           << format.active_channels << " min=" << event.min << " max=" << event.max
           << " total=" << event.total;
      break;
    case Kind::inactive_channel:
      line << "drop inactive ch=" << event.channel << " active_mask=0x" << std::hex
           << unsigned{format.active_mask} << std::dec << " record=" << event.record
           << " records=" << event.records;
      break;
    case Kind::overflow_in_sync:
      line << "drop ovf in sync ch=" << event.channel << " record=" << event.record
           << " chunks_left=" << event.sync_chunks_left;
      break;
    case Kind::sync_channel_mismatch:
      line << "drop sync channel mismatch ch=" << event.channel
           << " expected=" << event.sync_channel << " record=" << event.record
           << " chunks_left=" << event.sync_chunks_left;
      break;
    case Kind::nonmonotonic_sync:
      line << "drop nonmonotonic sync ch=" << event.channel << " next=" << event.next_ps
           << " prev=" << event.prev_ps << " record=" << event.record;
      break;
    case Kind::implausible_sync_delta:
      line << "drop implausible sync delta ch=" << event.channel << " delta=" << event.delta_ps
           << " next=" << event.next_ps << " prev=" << event.prev_ps << " record=" << event.record;
      break;
    case Kind::implausible_delta:
      line << "drop implausible delta ch=" << event.channel
           << " delta=" << static_cast<std::uint64_t>(event.delta_ps) << " prev=" << event.prev_ps
           << " record=" << event.record;
      break;
    case Kind::imbalanced:
      line << "drop internal imbalanced lock min=" << event.min << " max=" << event.max
           << " total=" << event.total << " records=" << event.records;
      break;
  }
  return line.str();
}

}  // namespace orvo::timing
