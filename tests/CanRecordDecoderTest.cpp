// Bus-log records as frames, and the names and places of their fields.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <string>

#include "Mdf4/can/CanRecordColumns.h"
#include "Mdf4/can/CanRecordDecoder.h"

namespace tolvex {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Layout = std::vector<CanFieldSlot>;

constexpr auto kData = CanFrameKind::Data;
constexpr auto kRemote = CanFrameKind::Remote;
constexpr auto kError = CanFrameKind::Error;

// The slots of a layout as a reader finds them: in the order of the names.
Layout slotsOf(const BusLogLayout& written, std::uint32_t maxDataLength) {
  std::map<std::string, CanFieldSlot> byName;
  for (const BusLogChannel& channel : written.channels) {
    const std::string name = written.channelName(channel);
    const auto found = classifyFieldName(name);
    if (!found) continue;
    byName[name] = {.kind = found->kind,
                    .field = found->field,
                    .byteOffset = channel.byteOffset,
                    .bitOffset = channel.bitOffset,
                    .bitCount = written.bitCount(channel, maxDataLength)};
  }
  Layout slots;
  for (const auto& [name, slot] : byName) slots.push_back(slot);
  return slots;
}

// Stores at every offset a value of that many bytes (to 79), but nothing at multiples of four.
struct StoredPayloads : PayloadSource {
  bool read(std::uint64_t offset, Bytes& out) override {
    out.assign(inMemory(offset % 80), static_cast<std::uint8_t>(offset));
    return offset % 4 != 0;
  }
};

// What a frame of either kind says.
struct Fields {
  bool isError = false;
  std::uint64_t channel = 0, id = 0, dlc = 0, flags = 0;
  Bytes payload;
  // Errors only.
  bool extended = false, isFd = false;
  std::uint64_t dataLength = 0, errorFlags = 0, brs = 0, crcDel = 0, crc = 0, btr = 0;
  std::uint64_t tec = 0, trec = 0;
  bool missing = false;  // the payload

  bool operator==(const Fields&) const = default;
};

void PrintTo(const Fields& f, std::ostream* out) {
  for (const std::uint64_t number : {std::uint64_t{f.isError}, f.channel, f.id, f.dlc, f.flags}) {
    *out << number << ' ';
  }
  *out << testing::PrintToString(f.payload) << (f.missing ? " is missing" : "");
}

constexpr std::pair<CanField, std::uint64_t> kFlags[] = {
    {CanField::Dir, 0x01}, {CanField::EDL, 0x04},    {CanField::BRS, 0x08},
    {CanField::ESI, 0x10}, {CanField::WakeUp, 0x20}, {CanField::SingleWire, 0x40},
    {CanField::RTR, 0x80}};

Fields decode(const Layout& layout, bool payloadByDlc, const Bytes& record,
              PayloadSource* payloads = nullptr) {
  const MdfFrame frame = CanRecordDecoder(layout, payloadByDlc).decode(record, 17, 4, payloads);
  if (const auto* error = std::get_if<1>(&frame)) {
    const MdfCanError& e = **error;
    EXPECT_EQ(e.Timestamp(), 17U);
    return {true,           e.BusChannel(),    e.MessageId(),
            e.Dlc(),        e.Dir(),           e.DataBytes(),
            e.ExtendedId(), e.IsCanFdError(),  e.DataLength(),
            e.ErrorFlags(), e.TimeOffsetBRS(), e.TimeOffsetCRCDel(),
            e.Crc(),        e.BtrExtCfg(),     e.Tec(),
            e.Trec(),       e.PayloadMissing()};
  }
  const MdfCanMessage& m = *std::get<0>(frame);
  EXPECT_EQ(m.Timestamp(), 17U);
  EXPECT_EQ(m.DataIndex(), 4U);
  const bool flags[] = {m.Dir(), m.Edl(), m.Brs(), m.Esi(), m.WakeUp(), m.SingleWire(), m.Rtr()};
  Fields f{false, m.BusChannel(), m.MessageId(), m.Dlc(), m.Srr() ? 2U : 0U, m.DataBytes()};
  for (std::size_t i = 0; i < std::size(flags); ++i) f.flags |= flags[i] ? kFlags[i].second : 0;
  f.missing = m.PayloadMissing();
  return f;
}

std::uint64_t bitsOf(const CanFieldSlot& slot, const Bytes& record) {
  if (slot.bitCount == 0) return slot.constant.value_or(0);
  std::uint64_t value = 0;
  for (std::uint64_t k = 0; k < std::min(slot.bitCount, 64U); ++k) {
    const std::uint64_t bit = slot.byteOffset * std::uint64_t{8} + slot.bitOffset % 8 + k;
    if (bit / 8 < record.size())
      value |= std::uint64_t{record[inMemory(bit / 8)] >> bit % 8 & 1U} << k;
  }
  return value;
}

// The rule as it is stated, slot by slot.
Fields model(const Layout& layout, bool payloadByDlc, const Bytes& record,
             PayloadSource* payloads) {
  Fields f;
  for (const CanFieldSlot& slot : layout) f.isError |= slot.kind == kError;
  std::size_t limit = ~std::size_t{0};
  std::optional<std::uint64_t> code;
  std::optional<bool> missing;
  const CanFieldSlot* fd = nullptr;
  for (const CanFieldSlot& slot : layout) {
    if (slot.kind == kData && slot.field == CanField::EDL) fd = &slot;
  }
  const bool isFd = fd != nullptr && bitsOf(*fd, record) != 0;
  for (const CanFieldSlot& slot : layout) {
    const CanField field = slot.field;
    if (f.isError && slot.kind != kError) continue;
    if (slot.kind == kRemote) {
      const CanField known[] = {CanField::BusChannel, CanField::DLC, CanField::Dir,
                                CanField::ID,         CanField::IDE, CanField::WakeUp,
                                CanField::SingleWire};
      if (std::find(std::begin(known), std::end(known), field) == std::end(known)) continue;
    }
    const std::uint64_t value = bitsOf(slot, record);
    const auto low = static_cast<std::uint32_t>(value);
    const auto byte = static_cast<std::uint8_t>(value);
    if (field == CanField::BusChannel) {
      f.channel = (value - 1) & 0xFF;
    } else if (field == CanField::DLC) {
      if (f.isError || byte <= 15) f.dlc = byte;
      const std::size_t length = MdfCanMessage::DlcToLength(byte);
      if (payloadByDlc && byte <= 15) {
        limit = length;
        code = byte;
      }
      if (!f.isError && byte <= 15) f.payload.resize(slot.kind == kRemote ? 0 : length);
    } else if (field == CanField::DataBytes) {
      Bytes bytes;
      bool isWhole = true;
      if (slot.variableLength) {
        isWhole = payloads != nullptr && payloads->read(value, bytes) &&
                  (!f.isError || bytes.size() <= 64);
      } else {
        for (std::uint64_t i = 0; i < slot.bitCount / 8; ++i) {
          if (slot.byteOffset + i >= record.size()) break;
          bytes.push_back(record[inMemory(slot.byteOffset + i)]);
        }
        isWhole = bytes.size() >= std::min<std::size_t>(slot.bitCount / 8, limit) &&
                  (f.isError || slot.bitCount / 8 > 0 || !code);
      }
      missing = !isWhole && limit > 0;
      if (slot.variableLength ? !isWhole : *missing && !f.isError && code) continue;
      bytes.resize(std::min(bytes.size(), limit));
      MdfCanMessage message;
      message.DataBytes(bytes);
      if (!f.isError) f.dlc = message.Dlc() == 8 && code > 8 && !isFd ? *code : message.Dlc();
      f.payload = f.isError ? bytes : message.DataBytes();
    } else if (field == CanField::ID) {
      f.id = !f.isError && low >= 0x800 ? low | 0x80000000 : low;
    } else if (field == CanField::IDE && !f.isError) {
      f.id = (f.id & 0x7FFFFFFF) | (value != 0 ? 0x80000000 : 0);
    } else if (field == CanField::Dir || !f.isError) {
      for (const auto& [flag, mask] : kFlags) {
        if (flag == field) f.flags = value != 0 ? f.flags | mask : f.flags & ~mask;
      }
    } else if (field == CanField::IDE) {
      f.extended = value != 0;
    } else if (field == CanField::TEC || field == CanField::TREC) {
      (field == CanField::TEC ? f.tec : f.trec) = byte;
    } else if (field == CanField::DataLength || field == CanField::ErrorFlags) {
      (field == CanField::DataLength ? f.dataLength : f.errorFlags) = low;
    } else if (field >= CanField::TimeOffsetBRS && field <= CanField::BtrExtCfg) {
      std::uint64_t* const targets[] = {&f.brs, &f.crcDel, &f.crc, &f.btr};
      const auto index = static_cast<int>(field) - static_cast<int>(CanField::TimeOffsetBRS);
      *targets[index] = field == CanField::CRC ? low : value;
      f.isFd = true;
    }
    if (slot.kind == kRemote) f.flags |= 0x80;
  }
  const bool isRemote = (f.flags & 0x84) == 0x80;
  f.missing =
      f.isError ? missing.value_or(false) : !isRemote && missing.value_or(!f.payload.empty());
  if (!f.isError && code && !isFd && (f.flags & 0x80) != 0) {
    f.dlc = *code;
    f.payload.clear();
  }
  return f;
}

TEST(CanRecordDecoder, AppliesAnyLayoutSlotBySlot) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto below = [&random](std::uint32_t end) {
    return static_cast<std::uint32_t>(random() % end);
  };
  const std::uint32_t widths[] = {0, 1, 1, 1, 3, 8, 8, 9, 16, 29, 32, 57, 64, 65, 100, 512, ~0U};
  const std::uint32_t farOffsets[] = {1000, ~0U - 7, ~0U};
  const CanFrameKind kinds[] = {kData, kRemote, kError};
  StoredPayloads stored;
  for (int round = 0; round < 20000 && !testing::Test::HasFailure(); ++round) {
    Layout layout(below(12));
    const std::uint32_t kindOfAll = below(4);  // 3: mixed
    for (CanFieldSlot& slot : layout) {
      slot.kind = kinds[kindOfAll < 3 ? kindOfAll : below(20) == 0 ? 2 : below(2)];
      slot.field = static_cast<CanField>(below(4) == 0 ? 2 + below(2) : below(23));
      slot.byteOffset = below(12) == 0 ? farOffsets[below(3)] : below(30);
      slot.bitOffset = static_cast<std::uint8_t>(below(10));
      slot.bitCount = widths[below(std::size(widths))];
      slot.variableLength = below(2) == 0;
      if (below(2) == 0) slot.constant = static_cast<std::uint8_t>(below(256));
    }
    Bytes record(below(40));
    for (auto& byte : record) byte = static_cast<std::uint8_t>(below(below(2) == 0 ? 256 : 16));
    const bool payloadByDlc = below(2) == 0;
    PayloadSource* payloads = below(8) == 0 ? nullptr : &stored;
    EXPECT_EQ(decode(layout, payloadByDlc, record, payloads),
              model(layout, payloadByDlc, record, payloads))
        << "round " << round;
  }
}

// A row of the columns as the decoder's object tells it.
struct Row {
  std::uint32_t id = 0;
  unsigned bus = 0, flags = 0, dlc = 0;
  Bytes payload;

  bool operator==(const Row&) const = default;
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.id << ' ' << row.bus << ' ' << row.flags << ' ' << row.dlc << ' '
       << testing::PrintToString(row.payload);
}

Row rowOf(const CanRecordDecoder& decoder, const Bytes& record, PayloadSource* payloads) {
  const MdfFrame frame = decoder.decode(record, 0, 0, payloads);
  const MdfCanMessage& m = *std::get<0>(frame);
  Row row{m.CanId(), decoder.busOf(record), 0, m.Dlc(), {}};
  const bool flags[] = {m.Dir(),    m.Srr(),        m.Edl(), m.Brs(),        m.Esi(),
                        m.WakeUp(), m.SingleWire(), m.Rtr(), m.ExtendedId(), m.PayloadMissing()};
  for (std::size_t i = 0; i < std::size(flags); ++i) row.flags |= flags[i] ? 1U << i : 0;
  if (!m.PayloadMissing()) row.payload = m.DataBytes();
  return row;
}

Row rowOf(const MdfFrameBatch& batch, std::size_t row) {
  const MdfFrameView view = batch.at(row);
  const bool isRemote =
      (view.flags & (MdfFrameFlag::kRtr | MdfFrameFlag::kFd)) == MdfFrameFlag::kRtr;
  EXPECT_EQ(view.kind, isRemote ? MdfFrameKind::Remote : MdfFrameKind::Data);
  return {view.id, view.bus, view.flags, view.dlc, {view.data, view.data + view.length}};
}

// Data frames, packed in any way: what is quick for many records at once is right for each.
TEST(CanRecordColumns, HoldsWhatTheDecoderMakesOfEachRecord) {
  constexpr std::size_t kRecords = 300;
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto below = [&random](std::uint32_t end) {
    return static_cast<std::uint32_t>(random() % end);
  };
  const std::uint32_t widths[] = {0, 1, 1, 1, 1, 2, 8, 29, 32};
  StoredPayloads stored;
  for (int round = 0; round < 1000 && !testing::Test::HasFailure(); ++round) {
    const std::uint32_t size = 8 + below(below(2) == 0 ? 16 : 70);
    const auto slot = [&](CanField field, std::uint32_t bits) {
      CanFieldSlot made{.kind = kData, .field = field, .byteOffset = below(size)};
      made.bitOffset = static_cast<std::uint8_t>(below(8));
      made.bitCount = bits;
      return made;
    };
    Layout layout = {slot(CanField::DLC, below(8) == 0 ? 8 : 4)};
    layout.push_back(slot(CanField::DataBytes, 64 * (1 + below(2) * 7)));
    layout.back().variableLength = below(2) == 0;
    for (const CanField field :
         {CanField::BusChannel, CanField::ID, CanField::IDE, CanField::Dir, CanField::SRR,
          CanField::EDL, CanField::BRS, CanField::ESI, CanField::RTR, CanField::WakeUp}) {
      if (below(3) != 0) layout.push_back(slot(field, widths[below(std::size(widths))]));
    }
    const bool hasRemote = below(2) == 0;
    if (!hasRemote) std::erase_if(layout, [](auto& it) { return it.field == CanField::RTR; });
    Bytes records(kRecords * size);
    for (auto& byte : records) byte = static_cast<std::uint8_t>(below(below(4) == 0 ? 256 : 16));

    const CanRecordDecoder decoder(layout, true, true);
    const std::vector<std::int64_t> times(kRecords, 5);
    MdfFrameBatch batch;
    batch.offsets = {0};
    CanRecordColumns(decoder, size).append({records.data(), size, 7, times}, &stored, batch);
    ASSERT_EQ(batch.count, kRecords);
    for (std::size_t i = 0; i < kRecords && !testing::Test::HasFailure(); ++i) {
      const auto begin = records.begin() + static_cast<std::ptrdiff_t>(i * size);
      const Bytes record(begin, begin + static_cast<std::ptrdiff_t>(size));
      EXPECT_EQ(rowOf(batch, i), rowOf(decoder, record, &stored)) << "round " << round;
      EXPECT_EQ(batch.record[i], 7 + i);
      EXPECT_EQ(batch.timeNs[i], 5);
    }
  }
}

// A record of a group that tolvex writes: the time, then `fields`, then zeros.
Bytes recordOf(const BusLogLayout& written, std::uint32_t maxDataLength, const Bytes& fields) {
  Bytes record(written.recordSize(maxDataLength));
  std::fill_n(record.begin(), BusLogLayout::kTimeBytes, 0x55);
  std::copy(fields.begin(), fields.end(), record.begin() + BusLogLayout::kTimeBytes);
  return record;
}

TEST(BusLogLayout, DecodesToTheFrameThatWasWritten) {
  const Layout data = slotsOf(kCanDataFrames, 8);
  // Bus channel 3, code 3, flags Dir, EDL and WakeUp as a frame object packs them, identifier.
  Bytes record = recordOf(kCanDataFrames, 8, {3, 3, 0x25, 0x23, 1, 0, 0, 0xA, 0xB, 0xC});
  Fields want{false, 2, 0x123, 8, 0x45, {0xA, 0xB, 0xC, 0, 0, 0, 0, 0}};
  EXPECT_EQ(decode(data, false, record), want);
  want.dlc = 3;
  want.payload = {0xA, 0xB, 0xC};
  EXPECT_EQ(decode(data, true, record), want);
  record = recordOf(kCanDataFrames, 8, {0, 0, 0, 0x23, 1, 0, 0x80});
  EXPECT_EQ(decode(data, true, record), (Fields{false, 255, 0x80000123, 0, 0, {}}));

  record = recordOf(kCanErrorFrames, 8, {1, 0x78, 0x56, 0x34, 0x92, 7, 0x80, 2, 5, 6, 1, 2, 3});
  want = {true, 0, 0x92345678, 2, 1, {1, 2, 3, 0, 0, 0, 0, 0}, true, false, 2, 7, 0, 0, 0, 0, 5, 6};
  EXPECT_EQ(decode(slotsOf(kCanErrorFrames, 8), false, record), want);

  record = recordOf(kCanFdErrorFrames, 8, {1, 0x78, 0x56, 0x34, 1, 9, 12, 0, 5, 6, 0, 4, 3, 2,
                                           1, 8,    7,    6,    5, 1, 2,  3, 0, 0, 0, 0, 9});
  record[41] = 0xAA;
  record[112] = 0x80;
  want = {true, 0, 0x1345678, 9,         0,        Bytes(64),  true, true,
          12,   9, 0x1020304, 0x5060708, 0x030201, 1ULL << 63, 5,    6};
  want.payload[0] = 0xAA;
  EXPECT_EQ(decode(slotsOf(kCanFdErrorFrames, 8), false, record), want);
}

TEST(CanRecordDecoder, CutsAPayloadToTheRecordsOwnCode) {
  const struct {
    std::uint32_t field;
    std::uint8_t code, dlc;
    std::size_t size;
  } rows[] = {{8, 0, 0, 0},  {8, 8, 8, 8},   {8, 9, 9, 8},     {8, 15, 15, 8},   {8, 16, 8, 8},
              {64, 8, 8, 8}, {64, 9, 9, 12}, {64, 14, 14, 48}, {64, 15, 15, 64}, {12, 15, 9, 12}};
  for (const auto& [field, code, dlc, size] : rows) {
    const Bytes record = recordOf(kCanDataFrames, field, {0, code});
    const Fields frame = decode(slotsOf(kCanDataFrames, field), true, record);
    EXPECT_EQ(frame.dlc, dlc) << field << " bytes, code " << int{code};
    EXPECT_EQ(frame.payload.size(), size) << field << " bytes, code " << int{code};
  }
}

TEST(CanFieldNames, AreFoundByPrefixAndSuffix) {
  const struct {
    const char* name;
    std::optional<CanFieldName> found;
  } rows[] = {
      {"CAN_DataFrame.ID", {{kData, CanField::ID}}},
      {"Bus 1.CAN_DataFrame_2.BtrExtCfg", {{kData, CanField::BtrExtCfg}}},
      {"CAN_DataFrame.CAN_RemoteFrame.DLC", {{kRemote, CanField::DLC}}},
      {"CAN_ErrorFrame.REC", {{kError, CanField::TREC}}},
      {"CAN_FdErrorFrame.TREC", {{kError, CanField::TREC}}},
      {"CAN_DataFrame.SRR", {}},
      {"CAN_DataFrame.id", {}},
      {"CAN_DataFrame.", {}},
      {"CAN_DataFrameID", {}},
      {"CAN_Data.ID", {}},
      {"x.CAN_DataFrame", {}},
      {"", {}},
  };
  for (const auto& [name, found] : rows) EXPECT_EQ(classifyFieldName(name), found) << name;
}

}  // namespace
}  // namespace tolvex
