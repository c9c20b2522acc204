// Plain functions: opening a recording, and what it holds.
#include <algorithm>
#include <cinttypes>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/base/NamePattern.h"
#include "Mdf4/plain/OpenRecording.h"
#include "tolvex/MdfColumns.h"

namespace tolvex::plain {
namespace {

static_assert(TOLVEX_DICTIONARY == static_cast<int>(MdfColumnType::Dictionary));
static_assert(TOLVEX_FLOAT64 == static_cast<int>(MdfColumnType::Float64));
static_assert(TOLVEX_INT8 == static_cast<int>(MdfColumnType::Int8));

// The reader's own texts end in a NUL.
const char* textOf(std::string_view text) {
  return text.data() == nullptr ? "" : text.data();
}

void close(tolvex_reader& reader) {
  reader.recording = nullptr;
  reader.problems = {};
  reader.notices = {};
}

tolvex_status open(tolvex_reader& reader, std::vector<std::string> paths) {
  close(reader);
  auto recording = std::make_shared<OpenRecording>(std::move(paths));
  std::string error;
  if (!recording->open(error)) return failed(reader.error, error, TOLVEX_ERROR_FILE);
  reader.recording = std::move(recording);
  return TOLVEX_OK;
}

// What the reader says of an open file.
std::vector<std::string> textsOf(tolvex_reader& reader,
                                 std::vector<std::string> (MdfColumnReader::*ask)() const) {
  if (reader.recording == nullptr) return {};
  return reader.recording->with([&](MdfColumnReader& columns) { return (columns.*ask)(); });
}

tolvex_status filled(tolvex_reader& reader, bool isFilled) {
  return isFilled ? tolvex_status{TOLVEX_OK}
                  : reader.error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoSize);
}

tolvex_recording describe(const OpenRecording& recording) {
  const MdfRecordingInfo& info = recording.info();
  tolvex_recording described = {};
  described.program = info.program.c_str();
  described.comment = textOf(info.comment);
  described.start_time_ns = info.startTimeNs;
  described.version = info.version;
  described.group_count = static_cast<std::uint32_t>(recording.groups().size());
  described.start_is_local = info.startIsLocal ? 1 : 0;
  described.utc_offset_minutes = info.utcOffsetMinutes;
  return described;
}

tolvex_group describe(const MdfColumnGroup& group) {
  tolvex_group described = {};
  described.name = textOf(group.name);
  described.comment = textOf(group.comment);
  described.source_name = textOf(group.sourceName);
  described.source_path = textOf(group.sourcePath);
  described.rows = group.records;
  described.channel_count = static_cast<std::uint32_t>(group.channels.size());
  described.master = group.master;
  return described;
}

tolvex_channel describe(const MdfColumnChannel& channel) {
  tolvex_channel described = {};
  described.name = textOf(channel.name);
  described.unit = textOf(channel.unit);
  described.comment = textOf(channel.comment);
  described.source_name = textOf(channel.sourceName);
  described.source_path = textOf(channel.sourcePath);
  described.conversion_name = textOf(channel.conversionName);
  described.fault = channel.fault.c_str();
  described.shape = channel.shape.data();
  described.dimensions = channel.shape.size();
  described.elements = 1;
  for (const std::uint64_t size : channel.shape) described.elements *= size;
  described.type = static_cast<std::uint32_t>(channel.type);
  described.raw_type = static_cast<std::uint32_t>(channel.rawType);
  described.parent = channel.parent;
  described.bit_count = channel.bitCount;
  described.conversion = channel.conversion;
  described.channel_type = channel.channelType;
  described.sync_type = channel.syncType;
  described.data_type = channel.dataType;
  described.gives_numbers = channel.givesNumbers ? 1 : 0;
  return described;
}

// The channels of the names that are wanted, as tolvex_reader_find gives them. `makeChoice` makes
// of `name` what tells whether a channel's name is one.
template <class MakeChoice>
tolvex_status placesOf(tolvex_reader* reader, const char* name, tolvex_place* places, size_t room,
                       size_t* found, MakeChoice makeChoice) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  if (name == nullptr || found == nullptr || (places == nullptr && room != 0)) {
    return reader->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNull);
  }
  if (reader->recording == nullptr) {
    return reader->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNotOpen);
  }
  return guarded(reader->error, [&]() -> tolvex_status {
    const auto isWanted = makeChoice();
    *found = 0;
    for (std::int32_t group = -1; const MdfColumnGroup& one : reader->recording->groups()) {
      ++group;
      for (std::int32_t channel = -1; const MdfColumnChannel& other : one.channels) {
        ++channel;
        if (!isWanted(other.name)) continue;
        if (*found < room) places[*found] = {group, channel};
        ++*found;
      }
    }
    return TOLVEX_OK;
  });
}

}  // namespace

const MdfColumnGroup* groupOf(tolvex_reader& reader, std::int32_t group) {
  if (reader.recording == nullptr) {
    reader.error.setFixed(TOLVEX_ERROR_ARGUMENT, kNotOpen);
    return nullptr;
  }
  const std::vector<MdfColumnGroup>& groups = reader.recording->groups();
  if (group >= 0 && group < std::ssize(groups)) return &groups[static_cast<std::size_t>(group)];
  reader.error.set(TOLVEX_ERROR_ARGUMENT, formatText("there is no group %" PRId32, group));
  return nullptr;
}

const MdfColumnChannel* channelOf(tolvex_reader& reader, std::int32_t group, std::int32_t channel) {
  const MdfColumnGroup* const found = groupOf(reader, group);
  if (found == nullptr) return nullptr;
  if (channel >= 0 && channel < std::ssize(found->channels)) {
    return &found->channels[static_cast<std::size_t>(channel)];
  }
  reader.error.set(TOLVEX_ERROR_ARGUMENT,
                   formatText("there is no channel %" PRId32 " in group %" PRId32, channel, group));
  return nullptr;
}

}  // namespace tolvex::plain

using namespace tolvex::plain;

tolvex_status tolvex_reader_new(tolvex_reader** reader) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  *reader = new (std::nothrow) tolvex_reader;
  return *reader != nullptr ? TOLVEX_OK : TOLVEX_ERROR_MEMORY;
}

void tolvex_reader_free(tolvex_reader* reader) {
  delete reader;
}

tolvex_status tolvex_reader_open(tolvex_reader* reader, const char* const* paths, size_t count) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(reader->error, [&]() -> tolvex_status {
    close(*reader);
    std::vector<std::string> taken;
    if (!takePaths(paths, count, taken)) {
      return reader->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoPath);
    }
    return open(*reader, std::move(taken));
  });
}

tolvex_status tolvex_reader_open_parts(tolvex_reader* reader, const char* path) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(reader->error, [&]() -> tolvex_status {
    close(*reader);
    if (path == nullptr) {
      return reader->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNoPath);
    }
    return open(*reader, tolvex::mdfPartsOf(path));
  });
}

void tolvex_reader_close(tolvex_reader* reader) {
  if (reader != nullptr) close(*reader);
}

const char* tolvex_reader_error(const tolvex_reader* reader) {
  return reader == nullptr ? "" : reader->error.text();
}

tolvex_status tolvex_reader_problems(tolvex_reader* reader, const char* const** texts,
                                     size_t* count) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(reader->error, [&] {
    return TextList::hand(reader->problems, textsOf(*reader, &tolvex::MdfColumnReader::problems),
                          reader->error, texts, count);
  });
}

tolvex_status tolvex_reader_notices(tolvex_reader* reader, const char* const** texts,
                                    size_t* count) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(reader->error, [&] {
    return TextList::hand(reader->notices, textsOf(*reader, &tolvex::MdfColumnReader::notices),
                          reader->error, texts, count);
  });
}

tolvex_status tolvex_reader_recording(tolvex_reader* reader, tolvex_recording* recording) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  if (reader->recording == nullptr) {
    return reader->error.setFixed(TOLVEX_ERROR_ARGUMENT, kNotOpen);
  }
  return filled(*reader, fill(recording, describe(*reader->recording)));
}

tolvex_status tolvex_reader_group(tolvex_reader* reader, int32_t group, tolvex_group* description) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(reader->error, [&]() -> tolvex_status {
    const auto* const found = groupOf(*reader, group);
    if (found == nullptr) return TOLVEX_ERROR_ARGUMENT;
    return filled(*reader, fill(description, describe(*found)));
  });
}

tolvex_status tolvex_reader_channel(tolvex_reader* reader, int32_t group, int32_t channel,
                                    tolvex_channel* description) {
  if (reader == nullptr) return TOLVEX_ERROR_ARGUMENT;
  return guarded(reader->error, [&]() -> tolvex_status {
    const auto* const found = channelOf(*reader, group, channel);
    if (found == nullptr) return TOLVEX_ERROR_ARGUMENT;
    return filled(*reader, fill(description, describe(*found)));
  });
}

tolvex_status tolvex_reader_find(tolvex_reader* reader, const char* name, tolvex_place* places,
                                 size_t room, size_t* found) {
  return placesOf(reader, name, places, room, found, [&] {
    return [wanted = std::string_view(name)](auto other) { return other == wanted; };
  });
}

tolvex_status tolvex_reader_match(tolvex_reader* reader, const char* pattern, int32_t ignore_case,
                                  tolvex_place* places, size_t room, size_t* found) {
  return placesOf(reader, pattern, places, room, found, [&] {
    const tolvex::PatternRules rules = {.sets = true, .ignoreCase = ignore_case != 0};
    return [wanted = tolvex::NamePattern(pattern, rules)](std::string_view name) {
      return wanted.matches(name);
    };
  });
}
