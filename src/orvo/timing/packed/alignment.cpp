#include "orvo/timing/packed/alignment.h"

#include <algorithm>
#include <bit>
#include <tuple>

#include "orvo/timing/byte_order.h"

namespace orvo::timing::detail {
namespace {

/// The bits from `position` on, at the top of the word: at least 57 of them, and all 64 if
/// `position` is a multiple of 8.
std::uint64_t word_at(const std::uint8_t* data, std::uint64_t position) {
  return load_big_endian_64(data + position / 8) << (position % 8);
}

// Of the record at the top of a word.
unsigned channel_of(std::uint64_t record) { return static_cast<unsigned>(record >> 62); }
bool is_flagged(std::uint64_t record) { return (record >> 61 & 1) != 0; }
/// The flag and the payload are all ones.
bool starts_sync(std::uint64_t record, const PackedFormat& format) {
  return ~record << 2 >> (63 - format.bits) == 0;
}

/// The data records of each channel from `begin` to `end`.
ChannelCounts count_data(const std::uint8_t* data, std::uint64_t begin, std::uint64_t end,
                         std::uint64_t width) {
  std::array<std::uint64_t, 8> kinds{};  // by channel and flag
  for (std::uint64_t position = begin; position < end; position += width) {
    ++kinds[word_at(data, position) >> 61];
  }
  return {kinds[0], kinds[2], kinds[4], kinds[6]};
}

/// What a parse has found: which channels sync, and how many data records they have. It
/// reconstructs no times.
struct Parse {
  /// What is known of the other parses that read the record with which this one began.
  enum class Others {
    any,
    same_course,  ///< all stand where this one does and have been reset, if at another record
    same,         ///< all have this one's state
  };

  std::uint64_t next = 0;     ///< position of the next record
  std::uint64_t restart = 0;  ///< position after the record that last reset the parse; 0 for none
  Others others = Others::any;
  bool has_sync = false;  ///< a whole one since the last reset
  unsigned sync_records_left = 0;
  unsigned sync_channel = 0;
  unsigned pending_channel = PackedFormat::kNoChannel;  ///< the last sync anchors its next data
  ChannelCounts data{};                                 ///< data records since the first whole sync
  ChannelCounts counts{};  ///< those from a channel's first anchored one on; with any it is synced

  void read_record(const std::uint8_t* bytes, const PackedFormat& format) {
    const std::uint64_t record = word_at(bytes, next);
    const unsigned channel = channel_of(record);
    const bool in_sync = sync_records_left > 0;
    next += format.width;
    if (!format.active(channel)) {
      reset(Others::same);  // resets every parse
    } else if (in_sync && (channel != sync_channel || is_flagged(record))) {
      reset(others_at_break(starts_sync(record, format)));
    } else if (in_sync) {
      if (--sync_records_left == 0) {
        has_sync = true;
        pending_channel = channel;
      }
    } else if (starts_sync(record, format)) {
      sync_records_left = format.sync_records;
      sync_channel = channel;
    } else if (!is_flagged(record)) {
      add_data(channel, 1);
    }
  }

  void add_data(unsigned channel, std::uint64_t records) {
    if (has_sync && records > 0) {
      const bool anchored = counts[channel] > 0 || channel == pending_channel;
      counts[channel] += anchored ? records : 0;
      data[channel] += records;
      pending_channel = channel == pending_channel ? PackedFormat::kNoChannel : pending_channel;
    }
  }

  /// A record that breaks a sync does not reset the parses that were reset where the sync starts.
  /// These have met nothing since, and unless the record starts a sync, they go on as this one.
  [[nodiscard]] Others others_at_break(bool starts_sync) const {
    return others != Others::any ? Others::same : starts_sync ? others : Others::same_course;
  }

  void reset(Others now) {
    if (has_sync) {
      *this = {.next = next};
    }
    others = now;
    restart = next;
    sync_records_left = 0;
  }
};

/// Whether a byte of the word is all ones. May also say so if a byte lacks only its last bit.
bool has_byte_of_ones(std::uint64_t word) {
  return ((~word - 0x0101010101010101) & word & 0x8080808080808080) != 0;
}

/// The positions of `word` at which a record would start a sync or be of a channel that is not
/// active. One bit for each position, the first most significant.
std::uint64_t points_of(std::uint64_t word, std::uint64_t following, const PackedFormat& format) {
  std::uint64_t points = 0;
  for (unsigned channel = 0; format.active_channels < kChannels && channel < kChannels; ++channel) {
    if (!format.active(channel)) {
      const std::uint64_t low = word << 1 | following >> 63;
      points |= ((channel & 2) != 0 ? word : ~word) & ((channel & 1) != 0 ? low : ~low);
    }
  }
  const unsigned ones = format.bits + 1;
  if (ones >= 15 && !has_byte_of_ones(word) && !has_byte_of_ones(following)) {
    return points;  // so many ones have a whole byte among them, wherever they begin
  }
  // A sync start is two bits of channel, the flag and payload of ones. A bit of `word` says whether
  // a run of at least `length` ones begins there; so does a bit of `following`, as far as the run
  // ends inside it. No record of `word` reaches its last 30 bits.
  for (unsigned length = 1; length < ones;) {
    const unsigned more = std::min(length, ones - length);
    word &= word << more | following >> (64 - more);
    following &= following << more;
    length += more;
  }
  return points | word << 2 | following >> 62;
}

/// All such positions: outside a sync only they change what a parse does next. Takes 128 KiB.
class TurningPoints {
 public:
  /// Finds those whose record ends at or before bit `end`, which is at most 8 * kSearchedBytes.
  TurningPoints(const std::uint8_t* data, std::uint64_t end, const PackedFormat& format)
      : width_(format.width) {
    for (unsigned bit = 0; bit < 64; bit += width_) {
      grid_bits_ |= std::uint64_t{1} << (63 - bit);
    }
    const std::uint64_t positions = end - width_ + 1;
    std::uint64_t next = (positions + 63) / 64;
    words_[next] = {~std::uint64_t{0}, next};  // ends every search
    std::uint64_t following = word_at(data, 64 * next);
    for (std::uint64_t index = next; index-- > 0;) {
      const std::uint64_t word = word_at(data, 64 * index);
      words_[index] = {points_of(word, following, format), next};
      if (positions - 64 * index < 64) {
        words_[index].points |= ~std::uint64_t{0} >> (positions - 64 * index);
      }
      next = words_[index].points != 0 ? index : next;
      following = word;
    }
  }

  /// The first at `position` or a number of records later. If there is none, the position after the
  /// last whole record.
  [[nodiscard]] std::uint64_t next(std::uint64_t position) const {
    std::uint64_t index = position / 64;
    if (words_[index].points << position % 64 >> 63 != 0) [[likely]] {
      return position;  // often, and sooner known than a count
    }
    std::uint64_t points = words_[index].points & grid_bits_ >> position % 64;
    while (points == 0) {
      index = words_[index].next;
      const auto skipped = static_cast<std::uint32_t>(64 * index - position);
      points = words_[index].points & grid_bits_ >> (width_ - 1 - (skipped - 1) % width_);
    }
    return 64 * index + static_cast<unsigned>(std::countl_zero(points));
  }

 private:
  struct Word {
    std::uint64_t points;
    std::uint64_t next;  ///< index of the next word that has any
  };

  unsigned width_;
  std::uint64_t grid_bits_ = 0;  ///< the first bit of a word, and those records later
  std::array<Word, kSearchedBytes / 8 + 1> words_;
};

/// Each byte offset has a span of bytes, and a parse begins at every bit shift in it. Two parses
/// that begin at one bit, but in different spans, differ only in where they end, and the first span
/// ends first. So each bit has one parse, read to the end of the first span and from there to the
/// ends of the later ones.
///
/// In the first span all parses of a grid, which begin multiples of the record width apart, are
/// worked out together. After its first record or sync, a parse goes on as the one that begins
/// there, because a reset makes it forget everything, and ordinary records count only after a sync.
class Search {
 public:
  Search(const InputBuffer& buffer, const PackedFormat& format);
  [[nodiscard]] std::optional<Alignment> run();

 private:
  void read_grid(std::uint64_t grid);
  [[nodiscard]] Parse parse_from(std::uint64_t begin, std::uint64_t known_end) const;
  [[nodiscard]] Parse known_after(const Parse& parse) const;
  void offer(const Parse& parse, std::uint64_t begin);

  [[nodiscard]] std::uint64_t end_of_span(std::size_t offset) const {
    return 8 * std::uint64_t{std::min(offset + kSearchedBytes, buffer_bytes_)};
  }

  const PackedFormat& format_;
  const std::uint8_t* const data_;
  const std::size_t buffer_bytes_;
  const std::size_t last_offset_;
  const std::uint64_t last_record_;  ///< where the last one that fits in the first span begins
  const TurningPoints turning_points_;
  /// Indexed by start bit; one more for each grid.
  std::array<Parse, 8 * kLastOffset + 2 * (PackedFormat::kMaxBits + 3)> parses_;
  std::optional<Alignment> best_;
};

Search::Search(const InputBuffer& buffer, const PackedFormat& format)
    : format_(format),
      data_(buffer.data()),
      buffer_bytes_(buffer.size()),
      last_offset_(std::min(format.active_channels == 1 ? kLastOffsetOneChannel : kLastOffset,
                            buffer_bytes_ - 1)),
      last_record_(end_of_span(0) - format.width),
      turning_points_(data_, end_of_span(0), format) {}

std::optional<Alignment> Search::run() {
  const unsigned width = format_.width;
  for (unsigned grid = 0; grid < width && grid <= last_record_; ++grid) {
    read_grid(grid);
  }
  for (std::size_t offset = 0; offset <= last_offset_; ++offset) {
    const std::uint64_t end = end_of_span(offset);
    const std::uint64_t begins_end = std::min(8 * offset + width, end - width + 1);
    for (std::uint64_t begin = 8 * offset; begin < begins_end; ++begin) {
      while (parses_[begin].next + width <= end) {
        parses_[begin].read_record(data_, format_);
      }
      offer(parses_[begin], begin);
    }
  }
  return best_;
}

/// Reads the parses of a grid to the end of the first span, if a record fits there. Often one from
/// near the end stands for all, and otherwise one from where the last of them stop.
void Search::read_grid(std::uint64_t grid) {
  const std::uint64_t width = format_.width;
  const std::uint64_t bits = std::min(8 * last_offset_ + width, last_record_ + 1) - grid;
  const std::uint64_t begins_end = grid + (bits + width - 1) / width * width;
  const std::uint64_t records = (end_of_span(0) - begins_end) / width;
  Parse late;
  for (const unsigned shift : {9U, 6U, 0U}) {
    if (late.others != Parse::Others::same) {
      late = parse_from(begins_end + (records - (records >> shift)) * width, 0);
    }
  }
  parses_[begins_end] = late;
  for (std::uint64_t begin = begins_end; begin > grid;) {
    begin -= width;
    parses_[begin] = late.others == Parse::Others::same ? late : parse_from(begin, begins_end);
  }
}

/// To the end of the first span. Parses that begin later, up to `known_end`, are known.
Parse Search::parse_from(std::uint64_t begin, std::uint64_t known_end) const {
  Parse parse{.next = begin};
  while (parse.next <= last_record_) {
    do {
      parse.read_record(data_, format_);
    } while (parse.sync_records_left > 0 && parse.next <= last_record_);
    if (parse.sync_records_left == 0 && parse.next <= known_end) {
      return known_after(parse);
    }
    const std::uint64_t point = turning_points_.next(parse.next);
    if (parse.has_sync) {
      const ChannelCounts data = count_data(data_, parse.next, point, format_.width);
      for (unsigned c = 0; c < kChannels; ++c) {
        parse.add_data(c, data[c]);
      }
    }
    parse.next = point;
  }
  return parse;
}

/// The outcome of `parse` after its first record or sync.
Parse Search::known_after(const Parse& parse) const {
  Parse outcome = parses_[parse.next];
  outcome.restart = outcome.restart != 0 ? outcome.restart : parse.restart;
  if (outcome.restart == 0 && parse.has_sync) {
    const std::uint64_t point = turning_points_.next(parse.next);
    const ChannelCounts data = count_data(data_, parse.next, point, format_.width);
    for (unsigned c = 0; c < kChannels; ++c) {
      outcome.data[c] += data[c];
    }
    // The sync anchors the first data record of its channel, but only before the next sync.
    const unsigned channel = parse.pending_channel;
    if (data[channel] > 0) {
      outcome.counts[channel] = outcome.data[channel];
    } else if (!outcome.has_sync) {
      outcome.pending_channel = channel;
    }
    outcome.has_sync = true;
  }
  return outcome;
}

/// Among equals the first one offered wins.
void Search::offer(const Parse& parse, std::uint64_t begin) {
  const ChannelTally data(parse.counts, format_);
  if (data.present < format_.required_synced) {
    return;
  }
  const std::uint64_t first_record = parse.restart != 0 ? parse.restart : begin;
  const Alignment alignment{.accepted = !format_.balanced || data.max <= kMaxImbalance * data.min,
                            .drop_bytes = first_record / 8,
                            .bit_offset = first_record % 8,
                            .data = data};
  const auto rank = [](const Alignment& a) {
    return std::tuple(a.accepted, a.data.present, a.accepted ? a.data.min : 0, a.data.total);
  };
  if (!best_ || rank(alignment) > rank(*best_)) {
    best_ = alignment;
  }
}

}  // namespace

std::optional<Alignment> probe_packed_alignment(const InputBuffer& buffer,
                                                const PackedFormat& format) {
  if (!format.valid() || 8 * buffer.size() < format.width) {
    return std::nullopt;
  }
  return Search(buffer, format).run();
}

}  // namespace orvo::timing::detail
