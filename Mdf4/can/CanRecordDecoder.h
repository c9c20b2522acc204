// Turns the records of a bus-log group into frame objects.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "Mdf4/base/BitField.h"
#include "Mdf4/base/Bytes.h"
#include "Mdf4/model/BusLogLayout.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

// Where payloads lie that are stored outside the records.
struct PayloadSource {
  virtual ~PayloadSource();
  // Replaces `out` by the value at `offset` of the group's signal data. False when it cannot be
  // read; what `out` then holds does not matter.
  [[nodiscard]] virtual bool read(std::uint64_t offset, std::vector<std::uint8_t>& out) = 0;
};

// Decodes the records of one group.
//
// The rule: the slots of the layout are applied to an empty frame, one after the other. Since that
// happens for every frame of a file, the constructor simplifies it: of slots with the same target
// the last one wins, slots that mean nothing to the group's frames are dropped, and flags that
// share a byte are decoded together. Nothing changes afterwards, so several threads may decode at
// once.
class CanRecordDecoder {
 public:
  // A number of the record, or a constant; the default reads 0.
  class Number {
   public:
    Number() = default;
    explicit Number(const CanFieldSlot& slot);

    [[nodiscard]] std::uint64_t read(ByteSpan record) const {
      return bits_.read(record) | constant_;
    }

   private:
    friend class CanRecordPlan;

    BitField bits_;
    std::uint64_t constant_ = 0;  // where there are no bits
  };

  // `layout` is in order of application. With payloadByDlc a payload is cut to the length that the
  // record's data length code stands for, as far as it was applied before the payload; a
  // remote frame keeps the code and has no payload, a classic frame of 8 bytes keeps a code
  // above 8. With loggerRules an error's identifier has its 29 bits alone, an error without
  // IDE has the extended flag when its ID is a larger number than others have, and EDL makes it one
  // of CAN FD.
  CanRecordDecoder(const std::vector<CanFieldSlot>& layout, bool payloadByDlc,
                   bool loggerRules = false);

  // The frame in `record`, whose bits beyond its end count as 0: an MdfCanError when the layout has
  // a slot of an error frame, else an MdfCanMessage. `payloads` may be null, where there are none
  // outside the records; a payload that cannot be read leaves the frame as its other fields made
  // it, and PayloadMissing() says so.
  MdfFrame decode(ByteSpan record, std::uint64_t timestampNs, std::uint64_t dataIndex,
                  PayloadSource* payloads) const {
    return isError_ ? errorFrame(record, timestampNs, payloads)
                    : messageFrame(record, timestampNs, dataIndex, payloads);
  }

  // What frames are chosen by, as the columns have it.
  std::uint32_t idOf(ByteSpan record) const;
  std::uint16_t busOf(ByteSpan record) const {
    // Frames count from 0, files as a rule from 1.
    return static_cast<std::uint16_t>(busChannel_.read(record) +
                                      static_cast<std::uint8_t>(busChannelBias_ + 1));
  }
  // Whether payloads lie outside the records, and which of the values there a record names.
  bool hasPayloadsOutside() const { return isOutside_; }
  std::uint64_t payloadOffset(ByteSpan record) const { return payloadOffset_.read(record); }
  const Number& payloadOffset() const { return payloadOffset_; }

 private:
  // A byte of the record that answers yes-or-no fields: for each of its values the marks that it
  // sets. A mark is a bit of the message's flags byte, or kExtendedMark.
  struct MarkByte {
    std::uint64_t byte = 0;
    std::array<std::uint16_t, 256> marks{};
  };
  static constexpr std::uint16_t kExtendedMark = 0x100;

  // A slot whose effect depends on the record or on the slots before it.
  struct Step {
    explicit Step(const CanFieldSlot& slot);
    // A payload's bytes in the record, as far as they lie inside it.
    ByteSpan inRecord(ByteSpan record) const;
    // Whether all of them do, or the first `limit`.
    bool isInside(ByteSpan record, std::uint32_t limit) const;
    // Replaces `out` by a payload from outside the record; false when it cannot be read.
    [[nodiscard]] bool fetch(ByteSpan record, PayloadSource* payloads,
                             std::vector<std::uint8_t>& out) const;

    CanFrameKind kind;
    CanField field;
    bool variableLength;
    Number number;         // the field's value; a payload's offset outside the record
    std::uint64_t offset;  // a payload in the record: bytes
    std::uint64_t size;
  };

  void planMessage(const std::vector<CanFieldSlot>& layout);
  void planError(const std::vector<CanFieldSlot>& layout);
  void planBusChannel(const CanFieldSlot& slot);
  void planMark(std::uint16_t mark, const CanFieldSlot& slot);
  static std::uint16_t markOf(CanField field);  // 0: not a yes-or-no field of messages

  // These construct what they return in its place: moving it would cost as much as making it.
  MdfFrame errorFrame(ByteSpan record, std::uint64_t timestampNs, PayloadSource* payloads) const;
  MdfFrame messageFrame(ByteSpan record, std::uint64_t timestampNs, std::uint64_t dataIndex,
                        PayloadSource* payloads) const;
  std::uint8_t busChannel(ByteSpan record) const;
  void decodeMessage(ByteSpan record, PayloadSource* payloads, MdfCanMessage& message) const;
  static void decodeErrorPayload(const Step& step, ByteSpan record, PayloadSource* payloads,
                                 std::uint32_t limit, MdfCanError& error);
  void decodeErrorId(std::uint32_t id, MdfCanError& error) const;
  void decodePayload(ByteSpan record, PayloadSource* payloads, MdfCanMessage& message) const;
  void decodeError(ByteSpan record, PayloadSource* payloads, MdfCanError& error) const;

  friend class CanRecordColumns;
  friend class CanRecordPlan;

  bool isError_ = false;
  bool payloadByDlc_;
  bool loggerRules_;
  Number busChannel_;
  std::uint8_t busChannelBias_ = 0;  // added to the number in the record

  bool hasExtended_ = false;  // the extended flag is set or cleared by its own field

  Number id_;
  // Messages only.
  std::uint16_t constantMarks_ = 0;
  std::vector<MarkByte> markBytes_;

  // The usual payload: a field of the record, as long as one of the codes stands for.
  bool plainPayload_ = false;
  std::uint8_t plainDlc_ = 0;
  std::uint64_t plainSize_ = 0;
  std::uint64_t plainEnd_ = 0;

  bool isOutside_ = false;
  Number payloadOffset_;

  // Messages: what makes up code and payload. Errors: everything but the bus channel.
  std::vector<Step> steps_;
};

}  // namespace tolvex
