// Signals: where a channel lies in a record, and how its bytes become a physical value or a text.
//
// Names beginning with cn_ and cc_ are the format's, of the channel's block (CN) and of its
// conversion's (CC).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tolvex/MdfExport.h"

namespace tolvex {

// Where a value lies with respect to a channel's ranges (MdfSigCCInfo::checkValueRange).
enum class RangeStatus : std::uint8_t {
  NoRange = 0,          // the channel states no such range
  InRange = 1,          // inside, bounds included
  InExtendedRange = 2,  // outside the limits, inside the extended limits
  OutOfRange = 3,       // outside of all
};

// Everything needed to turn one channel's bytes in a record into a raw number, and that number into
// a physical value or a text. A plain value: MdfSigReader::getCCInfo fills one per channel, an
// application may fill its own, and MdfSigWriter::addSignalChannel records a channel from it.
//
//   tolvex::MdfSigCCInfo rpm;   // an unsigned, little-endian number of 16 bits
//   rpm.byteOffset = 8;         // behind the time
//   rpm.bitCount = 16;
//   rpm.conversionType = 1;     // linear: offset 0, factor 0.25
//   rpm.values = {0, 0.25};
//   rpm.valueCount = 2;
//   double physical = 0;        // record: the bytes of MdfSignalRawData::data
//   if (rpm.convertToPhysical(record, physical)) std::printf("%g rpm\n", physical);
//
// A record is one record of the channel's group: data bytes, then invalidation bytes, without a
// record id. Every decoding function comes in two forms: a vector, or a pointer to `size` bytes.
// Functions that return bool leave their results as stated, or unchanged, when they give false.
//
// All const functions may be called from several threads at once.
struct TOLVEX_EXPORT MdfSigCCInfo {
  std::string name;
  std::string unit;
  std::string comment;

  // What kind of number or text the bits are: cn_data_type, 0..15. From it initDataTypeInfo derives
  // the next two; call it after a change.
  //
  //   dataType    valueKind     byteOrder
  //   0, 1        0 unsigned    1 little endian, 2 big endian
  //   2, 3        1 signed      1, 2
  //   4, 5        2 float       1, 2
  //   6           3 Latin-1     0 none
  //   7           4 UTF-8       0
  //   8, 9        5 UTF-16      1, 2
  //   10..15      6..11: bytes, MIME and CANopen types, complex numbers; 0
  std::uint32_t dataType = 0;
  std::uint32_t valueKind = 0;
  std::uint32_t byteOrder = 1;

  // Where the bits are: `bitCount` of them (cn_bit_count, its low 8 bits) from bit `bitOffset` of
  // byte `byteOffset` of the record.
  std::uint8_t bitOffset = 0;
  std::uint8_t bitCount = 0;
  std::uint32_t byteOffset = 0;

  // Decimal places to show, 255 for all. The display precision is what calculateDisplayPrecision
  // makes of the channel's (cn_precision, valid by cn_flags bit 2) and the conversion's
  // (cc_precision, valid by cc_flags bit 0).
  std::uint8_t displayPrecision = 255;
  bool hasDisplayPrecision = false;
  std::uint8_t cnPrecision = 255;
  bool cnPrecisionValid = false;
  std::uint8_t ccPrecision = 255;
  bool ccPrecisionValid = false;

  // The ranges that the file states, and whether it does: of raw values (cn_val_range, cn_flags
  // bit 3), of physical values (cc_phy_range, cc_flags bit 1), the limits (cn_limit, cn_flags bit
  // 4) and the extended limits (cn_limit_ext, cn_flags bit 5) of physical values.
  double valueRangeMin = 0;
  double valueRangeMax = 0;
  bool valueRangeValid = false;
  double physRangeMin = 0;
  double physRangeMax = 0;
  bool physRangeValid = false;
  double limitMin = 0;
  double limitMax = 0;
  bool limitValid = false;
  double limitExtMin = 0;
  double limitExtMax = 0;
  bool limitExtValid = false;

  // The conversion: cc_type, 0..11 (0 without one), cc_flags, the parameters cc_val and one text
  // per cc_ref ("" for a link of 0 or to something else). Counts are as the file states them; the
  // lists are shorter when the block holds fewer. The functions below say what each type needs.
  std::uint8_t conversionType = 0;
  std::uint16_t ccFlags = 0;
  std::uint16_t valueCount = 0;
  std::vector<double> values;
  std::uint16_t textCount = 0;
  std::vector<std::string> texts;

  // More of the channel: cn_sync_type (1: time), cn_type (0 fixed length, 1 variable length,
  // 2 master), cn_attachment_count, cn_flags, cn_inval_bit_pos.
  std::uint8_t syncType = 0;
  std::uint8_t channelType = 0;
  std::uint16_t attachmentCount = 0;
  std::uint32_t flags = 0;
  std::uint32_t invalidBitPos = 0;

  // The defaults above, then initDataTypeInfo.
  MdfSigCCInfo();

  // Sets valueKind and byteOrder from dataType; an unknown type counts as unsigned, without order.
  void initDataTypeInfo();
  // Sets displayPrecision to the channel's precision when valid, else the conversion's when valid.
  void calculateDisplayPrecision();
  // "Default" without a display precision, "Unlimited" for 255, else e.g. "3 decimal places".
  std::string getPrecisionString() const;
  // What conversionType is called, e.g. "LINEAR (linear conversion)"; "UNKNOWN" above 11.
  std::string getConversionTypeString() const;

  // Compares a raw value with the value range, or (`physical`) a physical one with the limits and
  // extended limits, when the limits are valid, else with the physical range.
  RangeStatus checkValueRange(double value, bool physical) const;

  // Whether conversionType gives texts (7, 8, 10, 11), numbers (0..6, 9), or numbers between the
  // keys of a table (4).
  bool isTextConversion() const;
  bool isNumericConversion() const;
  bool requiresInterpolation() const;

  // The (bitCount + 7) / 8 bytes from byteOffset as they are, without a shift by bitOffset; empty
  // when the record is too short or bitCount is 0.
  std::vector<std::uint8_t> extractRawBytes(const std::vector<std::uint8_t>& record) const;
  std::vector<std::uint8_t> extractRawBytes(const std::uint8_t* record, std::size_t size) const;

  // The channel's bits as an integer, least significant bit first; the bytes of big-endian fields
  // of 8 bits and more are then reversed, also where the field starts or ends within a byte. False
  // when the record is too short or bitCount is above 64.
  bool extractBitFieldValue(const std::vector<std::uint8_t>& record, std::uint64_t& value) const;
  bool extractBitFieldValue(const std::uint8_t* record, std::size_t size,
                            std::uint64_t& value) const;

  // The text of a string channel (valueKind 3, 4, 5) up to its first NUL: at most 31 bytes, as
  // bitCount has 8 bits (MdfSigReader::readText gives the whole text, and as UTF-8). Latin-1 stays
  // as it is; UTF-16 is read as little-endian, and becomes UTF-8 with "?" for units from 0x800 on.
  // False for other kinds and when the record is too short.
  bool extractStringValue(const std::vector<std::uint8_t>& record, std::string& text) const;
  bool extractStringValue(const std::uint8_t* record, std::size_t size, std::string& text) const;

  // An extracted bit field as a raw number: integers (unsigned ones of 64 bits with the top bit set
  // turn negative), floats of 32 and 64 bits. False for strings and other float widths.
  // Throws std::runtime_error "Invalid sample: invalidation bit set" when cn_flags bit 1 is set and
  // bit invalidBitPos of `value` is 1: the value's own bit, not one of the invalidation bytes. Ask
  // MdfSigReader::isInvalidSample for those.
  bool convertBitFieldValueToRaw(std::uint64_t value, double& raw) const;

  // The physical value of the channel in `record`; `text` receives the conversion's or the string
  // channel's text. The raw number of a string is its length in bytes. Never throws: what
  // convertBitFieldValueToRaw takes for an invalid sample gives false.
  bool convertToPhysical(const std::vector<std::uint8_t>& record, double& phys) const;
  bool convertToPhysical(const std::vector<std::uint8_t>& record, double& phys,
                         std::string& text) const;
  bool convertToPhysical(const std::uint8_t* record, std::size_t size, double& phys,
                         std::string& text) const;

  // The conversion of one raw number by conversionType. Types 0 to 6 clear `text`.
  //
  // On failure phys is raw and `text` stays. All fail for NaN, but for the identity, for counts
  // beyond their lists, and for keys that the search finds out of order. Two keys are equal when
  // they differ by less than 1e-12. Below, v is `values` and t is `texts`.
  bool applyConversion(double raw, double& phys, std::string& text) const;
  // cc_type 0, and unknown ones: phys = raw.
  bool convertIdentity(double raw, double& phys, std::string& text) const;
  // cc_type 1, linear: phys = v0 + v1 raw.
  bool convertLinear(double raw, double& phys, std::string& text) const;
  // cc_type 2, rational: phys = (v0 raw^2 + v1 raw + v2) / (v3 raw^2 + v4 raw + v5); fails when the
  // denominator is within 1e-12 of 0.
  bool convertRational(double raw, double& phys, std::string& text) const;
  // cc_type 3, algebraic: the formula, t0, is not evaluated: phys = raw.
  bool convertFormula(double raw, double& phys, std::string& text) const;
  // cc_type 4, value to value with interpolation: v are pairs (key, value), keys ascending. On the
  // line between the two nearest keys; before the first and behind the last key their values.
  bool convertN2NInterpol(double raw, double& phys, std::string& text) const;
  // cc_type 5, value to value: the same pairs; the value of the nearest key, the lower one of two.
  bool convertN2N(double raw, double& phys, std::string& text) const;
  // cc_type 6, range to value: v are triples (min, max, value); the first with min <= raw <= max.
  // Fails outside of all, and when v ends with the format's default value: its count must be a
  // multiple of 3.
  bool convertR2N(double raw, double& phys, std::string& text) const;
  // cc_type 7, value to text: t[i] for the first key v[i] equal to raw, else the text behind those,
  // the default, which fails when it is empty (and clears `text`). phys = raw. Needs one text more
  // than keys.
  bool convertN2T(double raw, double& phys, std::string& text) const;
  // cc_type 8, range to text: v are pairs (min, max); t[i] for the first pair with min <= raw <
  // max, for integers (dataType 0..3) min <= raw <= max; else the default behind those. phys = raw.
  // Needs one text more than pairs.
  bool convertR2T(double raw, double& phys, std::string& text) const;
  // cc_type 9, text to value: with i = raw rounded, phys = v[i] and text = t[i].
  bool convertT2N(double raw, double& phys, std::string& text) const;
  // cc_type 10, text to text: with i = raw rounded, text = t[2i + 1]. phys = raw.
  bool convertT2T(double raw, double& phys, std::string& text) const;
  // cc_type 11, bit field to text: v are pairs (mask, value); all t[i] whose pair has
  // (raw & mask) == value, joined by " | ". Fails when there is no text. phys = raw.
  bool convertBTT(double raw, double& phys, std::string& text) const;
};

// Where a channel lies in the file and in its record (MdfSigReader::getSigAttr). All defaults when
// the channel does not exist.
struct MdfSigAttr {
  std::string name;
  // 0-based: data group, channel group in it, channel in that.
  std::int32_t dgIndex = -1;
  std::int32_t cgIndex = -1;
  std::int32_t cnIndex = -1;
  // cn_byte_offset, cn_bit_count (all 32 bits) and cn_bit_offset.
  std::uint32_t byteOffset = 0;
  std::uint32_t bitCount = 0;
  std::uint8_t bitOffset = 0;
  std::uint32_t reserved = 0;  // unused
};

// The bytes of one record: data bytes, then invalidation bytes.
struct MdfSignalRawData {
  std::vector<std::uint8_t> data;
};

}  // namespace tolvex
