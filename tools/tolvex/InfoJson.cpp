// What info shows, as JSON.

#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>

#include "Info.h"
#include "JsonWriter.h"

namespace tolvex {

namespace {

using Json = JsonWriter::Json;

Json array() {
  return Json::array();
}

// Null where there is none.
Json orNull(const std::optional<double>& number) {
  return number && std::isfinite(*number) ? Json(*number) : Json();
}

const char* typeName(MdfColumnType type) {
  switch (type) {
    case MdfColumnType::None:
      return nullptr;
    case MdfColumnType::Int8:
      return "int8";
    case MdfColumnType::Int16:
      return "int16";
    case MdfColumnType::Int32:
      return "int32";
    case MdfColumnType::Int64:
      return "int64";
    case MdfColumnType::UInt8:
      return "uint8";
    case MdfColumnType::UInt16:
      return "uint16";
    case MdfColumnType::UInt32:
      return "uint32";
    case MdfColumnType::UInt64:
      return "uint64";
    case MdfColumnType::Float32:
      return "float32";
    case MdfColumnType::Float64:
      return "float64";
    case MdfColumnType::Text:
      return "text";
    case MdfColumnType::Bytes:
      return "bytes";
    case MdfColumnType::Dictionary:
      return "dictionary";
  }
  return nullptr;
}

Json typeJson(MdfColumnType type) {
  const char* const name = typeName(type);
  return name == nullptr ? Json() : Json(name);
}

// `number`: of the channels that are no members; null for these.
Json channelJson(const MdfColumnChannel& channel, const Json& number) {
  return {{"cn", number},
          {"name", shortened(channel.name)},
          {"unit", shortened(channel.unit)},
          {"comment", shortened(channel.comment)},
          {"channel_type", channel.channelType},
          {"sync_type", channel.syncType},
          {"data_type", channel.dataType},
          {"byte_offset", channel.byteOffset},
          {"bit_offset", channel.bitOffset},
          {"bit_count", channel.bitCount},
          {"conversion_type", channel.conversion},
          {"parent", channel.parent < 0 ? Json() : Json(channel.parent)},
          {"shape", channel.shape},
          {"type", typeJson(channel.type)},
          {"raw_type", typeJson(channel.rawType)},
          {"fault", channel.fault.empty() ? Json() : Json(shortened(channel.fault))},
          {"source", shortened(channel.sourceName)}};
}

Json secondsJson(const InfoSubject& subject, const TimeSpan& span, std::int64_t timeNs) {
  return span.isEmpty() ? Json() : Json(subject.secondsOf(timeNs));
}

class InfoJson {
 public:
  InfoJson(Output& out, const InfoSubject& subject) : subject_(subject), writer_(out) {}

  void write() {
    const InfoSubject& subject = subject_;
    const MdfRecordingInfo& info = subject.recording();
    const TimeSpan& span = subject.span();
    const auto timeJson = [&](std::int64_t timeNs) {
      return span.isEmpty() ? Json() : Json(timeNs);
    };
    Json json = {{"file", subject.files().front()},
                 {"size", subject.size()},
                 {"version", versionText(info)},
                 {"program", info.program},
                 {"start_time_ns", info.startTimeNs},
                 {"groups", array()},
                 {"first_time_ns", timeJson(span.firstNs)},
                 {"last_time_ns", timeJson(span.lastNs)},
                 {"first_time_s", secondsJson(subject, span, span.firstNs)},
                 {"last_time_s", secondsJson(subject, span, span.lastNs)},
                 {"buses", array()},
                 {"notices", subject.notices()},
                 {"files", array()}};
    writer_.write(json, {{"groups", [&] { writeGroups(); }},
                         {"buses", [&] { writeBuses(); }},
                         {"files", [&] { writeFiles(); }}});
  }

 private:
  static std::string versionText(const MdfRecordingInfo& info) {
    return std::to_string(info.version / 100) + '.' +
           std::to_string(100 + info.version % 100).substr(1);
  }

  void writeGroups() {
    for (std::size_t i = 0; i < subject_.groups().size(); ++i) {
      writeGroup(subject_.groups()[i], subject_.timesOf(i));
    }
  }

  void writeGroup(const MdfColumnGroup& group, const std::optional<GroupTimes>& times) {
    const auto orNone = [&](auto value) { return times ? Json(value(*times)) : Json(); };
    const Json json = {
        {"dg", group.dataGroup},
        {"cg", group.channelGroup},
        {"name", shortened(titleOf(group))},
        {"records", group.records},
        {"record_size", group.recordSize},
        {"channels", array()},
        {"unsorted", group.unsorted},
        {"duration_s", orNone([](const GroupTimes& t) { return t.duration(); })},
        {"stated_records", group.statedRecords},
        {"first_time_ns", orNone([](const GroupTimes& t) { return t.span.firstNs; })},
        {"last_time_ns", orNone([](const GroupTimes& t) { return t.span.lastNs; })},
        {"first_time_s", orNone([](const GroupTimes& t) { return t.firstSeconds; })},
        {"last_time_s", orNone([](const GroupTimes& t) { return t.lastSeconds; })},
        {"comment", shortened(group.comment)},
        {"source", shortened(group.sourceName)}};
    writer_.write(json,
                  {{"channels", [&] {
                      int number = 0;
                      for (const MdfColumnChannel& channel : group.channels) {
                        const bool isMember = channel.parent >= 0;
                        writer_.write(channelJson(channel, isMember ? Json() : Json(number++)));
                      }
                    }}});
  }

  void writeBuses() {
    for (const auto& [number, bus] : subject_.buses()) {
      const Json json = {{"bus", number},
                         {"frames", bus.frames},
                         {"error_frames", bus.errorFrames},
                         {"first_time_s", secondsJson(subject_, bus.span, bus.span.firstNs)},
                         {"last_time_s", secondsJson(subject_, bus.span, bus.span.lastNs)},
                         {"frames_per_s", orNull(bus.rate())},
                         {"load", orNull(bus.load())},
                         {"ids", array()},
                         {"other_frames", bus.otherFrames}};
      const auto& ids = bus.ids;
      writer_.write(json, {{"ids", [&] {
                              for (const IdStatistics& id : ids) {
                                writeId(id);
                              }
                            }}});
    }
  }

  void writeId(const IdStatistics& id) {
    writer_.write({{"id", id.id},
                   {"extended", id.isExtended},
                   {"frames", id.frames},
                   {"remote_frames", id.remoteFrames},
                   {"fd_frames", id.fdFrames},
                   {"fewest_bytes", id.fewestBytes},
                   {"most_bytes", id.mostBytes},
                   {"first_time_s", secondsJson(subject_, id.span, id.span.firstNs)},
                   {"last_time_s", secondsJson(subject_, id.span, id.span.lastNs)},
                   {"frames_per_s", orNull(id.rate())}});
  }

  void writeFiles() {
    subject_.forEachFile([&](const InfoFile& file) {
      const MdfRecordingInfo& info = file.info;
      const Json json = {{"file", file.path},
                         {"size", file.size},
                         {"version", versionText(info)},
                         {"program", info.program},
                         {"start_time_ns", info.startTimeNs},
                         {"start_is_local", info.startIsLocal},
                         {"utc_offset_min", info.utcOffsetMinutes},
                         {"comment", shortened(info.comment)},
                         {"notices", file.notices},
                         {"properties", array()},
                         {"history", array()},
                         {"attachments", array()},
                         {"events", array()}};
      writer_.write(json, {{"properties", [&] { writeProperties(info); }},
                           {"history", [&] { writeHistory(info); }},
                           {"attachments", [&] { writeAttachments(info); }},
                           {"events", [&] { writeEvents(info); }}});
    });
  }

  void writeProperties(const MdfRecordingInfo& info) {
    for (const MdfProperty& property : info.properties) {
      writer_.write({{"name", shortened(property.name)},
                     {"value", shortened(property.value)},
                     {"unit", shortened(property.unit)}});
    }
  }

  void writeHistory(const MdfRecordingInfo& info) {
    for (const MdfHistoryEntry& entry : info.history) {
      writer_.write({{"time_ns", entry.timeNs},
                     {"is_local", entry.isLocal},
                     {"comment", shortened(entry.comment)},
                     {"tool", entry.tool},
                     {"tool_version", entry.toolVersion},
                     {"vendor", entry.vendor},
                     {"user", entry.user}});
    }
  }

  void writeAttachments(const MdfRecordingInfo& info) {
    for (const MdfAttachment& attachment : info.attachments) {
      writer_.write({{"name", shortened(attachment.name)},
                     {"mime_type", shortened(attachment.mimeType)},
                     {"comment", shortened(attachment.comment)},
                     {"embedded", attachment.isEmbedded},
                     {"compressed", attachment.isCompressed},
                     {"size", attachment.size},
                     {"stored_size", attachment.storedSize}});
    }
  }

  void writeEvents(const MdfRecordingInfo& info) {
    for (const MdfEvent& event : info.events) {
      writer_.write({{"name", shortened(event.name)},
                     {"comment", shortened(event.comment)},
                     {"type", event.type},
                     {"type_text", eventTypeText(event)},
                     {"sync_type", event.syncType},
                     {"range_type", event.rangeType},
                     {"cause", event.cause},
                     {"cause_text", eventCauseText(event)},
                     {"position", orNull(event.position)}});
    }
  }

  const InfoSubject& subject_;
  JsonWriter writer_;
};

}  // namespace

void writeInfoJson(Output& out, const InfoSubject& subject) {
  InfoJson(out, subject).write();
  out.write('\n');
}

}  // namespace tolvex
