#include "Mdf4/can/FramesToSave.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <limits>

#include "Mdf4/Record.h"
#include "Mdf4/base/Bytes.h"
#include "Mdf4/base/Diagnostics.h"

namespace tolvex {
namespace {

constexpr std::uint32_t kMaxId = 0x1FFFFFFF;
constexpr std::uint32_t kMaxFdErrorId = 0xFFFFFF;  // and in the byte above, whether it is extended
constexpr std::uint32_t kFdErrorExtended = 0x1000000;
constexpr std::uint32_t kMaxCrc = 0x1FFFFF;
constexpr std::uint64_t kMaxTimeOffset = 0xFFFFFFFF;
constexpr unsigned kAllFlags = 0x3FF;
constexpr std::uint64_t kMaxStartTimeUs = std::numeric_limits<std::int64_t>::max() / 1000;

// Whether a payload as long as its code says has no room. In records of 8 bytes a classic frame may
// have any code.
bool isCodeTooLong(bool isFd, std::uint32_t stated, const FramesToSave::Limits& limits) {
  return stated > limits.maxPayload && (isFd || limits.maxPayload > kMaxClassicPayload);
}

}  // namespace

std::string FramesToSave::fault(const Limits& limits) const {
  if (count() == 0) return "";
  if (limits.startTimeUs > kMaxStartTimeUs) return "the recording starts beyond all nanoseconds";
  std::string fault = faultOfColumns();
  for (std::size_t i = 0; fault.empty() && i < count(); ++i) {
    if (isUsual(i, limits)) continue;
    fault = faultOf(i, limits);
    if (!fault.empty()) fault = formatText("frame %zu: ", i) + fault;
  }
  return fault;
}

// Whether it is a data frame without a fault, as nearly all are.
bool FramesToSave::isUsual(std::size_t i, const Limits& limits) const {
  constexpr unsigned kOthers =
      kAllFlags & ~unsigned{TOLVEX_FRAME_RTR} & ~unsigned{TOLVEX_FRAME_PAYLOAD_MISSING};
  const std::uint64_t length = static_cast<std::uint64_t>(batch_.offsets[i + 1]) -
                               static_cast<std::uint64_t>(batch_.offsets[i]);
  if (length > limits.maxPayload || batch_.payloads == nullptr) return false;
  const std::uint8_t dlc = dlcOf(i);
  const std::uint32_t stated = kDlcLengths[std::min(dlc, kMaxDlc)];
  const unsigned flags = flagsOf(i);
  const bool isFd = (flags & TOLVEX_FRAME_FD) != 0;
  return batch_.times[i] >= static_cast<std::int64_t>(limits.startTimeUs * kNsPerUs) &&
         batch_.ids[i] <= kMaxId && (batch_.buses == nullptr || batch_.buses[i] <= 0xFF) &&
         dlc <= kMaxDlc && length <= stated && !isCodeTooLong(isFd, stated, limits) &&
         kindOf(i) == TOLVEX_FRAME_DATA && (flags & ~kOthers) == 0;
}

std::string FramesToSave::faultOfColumns() const {
  if (batch_.times == nullptr || batch_.ids == nullptr || batch_.offsets == nullptr) {
    return "times, identifiers or payload offsets are null";
  }
  if (batch_.offsets[0] < 0) return "payload offsets begin below 0";
  if (batch_.error_count == 0) return "";
  if (batch_.errors == nullptr || batch_.error_frames == nullptr || batch_.error_size == 0) {
    return "the fields of error frames are null, or have no size";
  }
  for (std::uint64_t k = 0; k < batch_.error_count; ++k) {
    const std::size_t frame = batch_.error_frames[k];
    const bool ascends = k == 0 || frame > batch_.error_frames[k - 1];
    if (!ascends || frame >= count() || !isError(frame)) {
      return formatText(
          "error fields %" PRIu64 ": frame %zu is no error frame behind the one before", k, frame);
    }
  }
  return "";
}

std::string FramesToSave::faultOf(std::size_t i, const Limits& limits) const {
  const std::int64_t startNs = static_cast<std::int64_t>(limits.startTimeUs * kNsPerUs);
  if (batch_.times[i] < startNs) {
    return formatText("its time, %" PRId64 ", is before the start of the recording, %" PRId64,
                      batch_.times[i], startNs);
  }
  if (batch_.offsets[i + 1] < batch_.offsets[i] || lengthOf(i) > kMaxPayload) {
    return formatText("expected a payload of 0 to 64 bytes, found offsets %" PRId64 " and %" PRId64,
                      batch_.offsets[i], batch_.offsets[i + 1]);
  }
  if (lengthOf(i) != 0 && batch_.payloads == nullptr) return "the payloads are null";
  if (batch_.ids[i] > kMaxId) {
    return formatText("expected an identifier of 29 bits, found 0x%" PRIX32, batch_.ids[i]);
  }
  if (batch_.buses != nullptr && batch_.buses[i] > 0xFF) {
    return formatText("expected a bus below 256, found %u", unsigned{batch_.buses[i]});
  }
  if (dlcOf(i) > kMaxDlc) {
    return formatText("expected a data length code below 16, found %u", unsigned{dlcOf(i)});
  }
  if (kindOf(i) > TOLVEX_FRAME_FD_ERROR) return formatText("there is no kind %u", kindOf(i));
  const unsigned flags = flagsOf(i);
  if (flags > kAllFlags) return formatText("there are no such flags as 0x%X", flags);
  if ((flags & TOLVEX_FRAME_PAYLOAD_MISSING) != 0) return "its payload is missing";
  return isError(i) ? faultOfError(i) : faultOfData(i, limits);
}

std::string FramesToSave::faultOfData(std::size_t i, const Limits& limits) const {
  const std::size_t length = lengthOf(i);
  const std::uint32_t stated = dlcToLength(dlcOf(i));
  const bool isFd = (flagsOf(i) & TOLVEX_FRAME_FD) != 0;
  const bool hasRtr = (flagsOf(i) & TOLVEX_FRAME_RTR) != 0;
  if (kindOf(i) == TOLVEX_FRAME_REMOTE || (hasRtr && !isFd)) {
    if (isFd) return "a remote frame cannot be one of CAN FD";
    return length == 0 ? "" : formatText("a remote frame has a payload of %zu bytes", length);
  }
  const bool isTooLong = isCodeTooLong(isFd, stated, limits);
  if (length > limits.maxPayload || isTooLong) {
    return formatText("its payload has %zu bytes, the recorder is configured for %u at most",
                      std::max<std::size_t>(length, isTooLong ? stated : 0),
                      unsigned{limits.maxPayload});
  }
  if (length <= stated) return "";
  return formatText("its payload has %zu bytes, its data length code stands for %u", length,
                    unsigned{stated});
}

std::string FramesToSave::faultOfError(std::size_t i) const {
  const bool isFd = isFdError(i);
  const std::size_t most = std::min(isFd ? kMaxPayload : kMaxClassicPayload, dlcToLength(dlcOf(i)));
  if (lengthOf(i) > most) {
    return formatText("its payload has %zu bytes, its record and its data length code allow %zu",
                      lengthOf(i), most);
  }
  const tolvex_frame_error error = errorOf(i);
  if (error.error_flags > 0xFF) {
    return formatText("expected error flags of 8 bits, found 0x%" PRIX32, error.error_flags);
  }
  if (!isFd) return "";
  const std::uint32_t stored =
      (batch_.ids[i] & kMaxFdErrorId) | (isExtended(i) ? kFdErrorExtended : 0U);
  if (stored != batch_.ids[i]) {
    return formatText("an error frame of CAN FD cannot have the %s identifier 0x%" PRIX32,
                      isExtended(i) ? "extended" : "standard", batch_.ids[i]);
  }
  if (error.data_length > 0xFF || error.crc > kMaxCrc || error.time_offset_brs > kMaxTimeOffset ||
      error.time_offset_crc_del > kMaxTimeOffset) {
    return "its data length, CRC or time offsets have more bits than a record keeps";
  }
  return "";
}

tolvex_frame_error FramesToSave::errorOf(std::size_t i) const {
  tolvex_frame_error error = {};
  const std::size_t* const end = batch_.error_frames + batch_.error_count;
  const std::size_t* const found = std::lower_bound(batch_.error_frames, end, i);
  if (found != end && *found == i) {
    const auto index = static_cast<std::uint64_t>(found - batch_.error_frames);
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(batch_.errors);
    std::memcpy(&error, bytes + index * batch_.error_size,
                inMemory(std::min<std::uint64_t>(batch_.error_size, sizeof error)));
  }
  return error;
}

bool FramesToSave::packError(RecordData& record, double seconds, std::size_t i) const {
  const tolvex_frame_error fields = errorOf(i);
  const ByteSpan payload = payloadOf(i);
  const bool isFd = isFdError(i);
  MdfCanError error;
  error.BusChannel(bus(i));
  error.MessageId(isFd ? batch_.ids[i] : idOf(i));
  error.ExtendedId(isExtended(i));
  error.ErrorFlags(fields.error_flags);
  error.Dir(isTransmitted(i));
  error.Dlc(dlcOf(i));
  error.DataLength(fields.data_length);
  error.DataBytes({payload.begin(), payload.end()});
  error.Tec(fields.tec);
  error.Trec(fields.rec);
  if (isFd) {
    error.TimeOffsetBRS(fields.time_offset_brs);
    error.TimeOffsetCRCDel(fields.time_offset_crc_del);
    error.BtrExtCfg(fields.btr_ext_cfg);
  }
  if (!error.ToRaw(record, 0, isFd)) return false;
  std::memcpy(record.data(), &seconds, sizeof seconds);
  // As the reader gives it, which an error turns around.
  if (isFd) storeField<kCanFdErrorFrames.place("CRC")>(record.data(), fields.crc);
  return true;
}

}  // namespace tolvex
