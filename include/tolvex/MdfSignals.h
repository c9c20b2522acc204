// Signals: where a channel lies in a record, and how its bytes become a physical value or a text.
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
  InRange = 1,          //
  InExtendedRange = 2,  // outside the limits, inside the extended limits
  OutOfRange = 3,       //
};

// Everything needed to turn one channel's bytes in a record into a raw number, and that into a
// physical value or a text. A plain value: MdfSigReader::getCCInfo fills one per channel, an
// application may fill its own.
//
// A record is the bytes of one record of the channel's group, data bytes first, then the
// invalidation bytes. Every decoding function comes in two forms: a vector, or a pointer to `size`
// bytes. All const functions may be called from several threads at once.
struct TOLVEX_EXPORT MdfSigCCInfo {
  std::string name;
  std::string unit;
  std::string comment;
  std::uint32_t dataType = 0;    // cn_data_type, 0..15
  std::uint32_t valueKind = 0;   // 0 unsigned, 1 signed, 2 float, 3 Latin-1, 4 UTF-8, 5 UTF-16,
                                 // 6..11 the remaining data types; from initDataTypeInfo
  std::uint32_t byteOrder = 1;   // 0 none, 1 little endian, 2 big endian; from initDataTypeInfo
  std::uint8_t bitOffset = 0;    // cn_bit_offset
  std::uint8_t bitCount = 0;     // cn_bit_count, its low 8 bits
  std::uint32_t byteOffset = 0;  // cn_byte_offset
  std::uint8_t displayPrecision = 255;  // decimal places, 255 unlimited; calculateDisplayPrecision
  bool hasDisplayPrecision = false;
  std::uint8_t cnPrecision = 255;  // cn_precision
  bool cnPrecisionValid = false;   // cn_flags bit 2
  std::uint8_t ccPrecision = 255;  // cc_precision
  bool ccPrecisionValid = false;   // cc_flags bit 0
  double valueRangeMin = 0;        // cn_val_range_min, raw
  double valueRangeMax = 0;
  bool valueRangeValid = false;  // cn_flags bit 3
  double physRangeMin = 0;       // cc_phy_range_min, physical
  double physRangeMax = 0;
  bool physRangeValid = false;  // cc_flags bit 1
  double limitMin = 0;          // cn_limit_min
  double limitMax = 0;
  bool limitValid = false;  // cn_flags bit 4
  double limitExtMin = 0;   // cn_limit_ext_min
  double limitExtMax = 0;
  bool limitExtValid = false;         // cn_flags bit 5
  std::uint8_t conversionType = 0;    // cc_type, 0..11; 0 without a conversion
  std::uint16_t ccFlags = 0;          // cc_flags
  std::uint16_t valueCount = 0;       // cc_val_count as the file states it
  std::vector<double> values;         // cc_val; fewer than valueCount when the block holds fewer
  std::uint16_t textCount = 0;        // cc_ref_count as the file states it
  std::vector<std::string> texts;     // one per cc_ref; "" for a 0 link or no text block; fewer
                                      // than textCount when the block holds fewer
  std::uint8_t syncType = 0;          // cn_sync_type
  std::uint8_t channelType = 0;       // cn_type
  std::uint16_t attachmentCount = 0;  // cn_attachment_count
  std::uint32_t flags = 0;            // cn_flags
  std::uint32_t invalidBitPos = 0;    // cn_inval_bit_pos

  MdfSigCCInfo();  // the defaults above, then initDataTypeInfo

  // Sets valueKind and byteOrder from dataType.
  void initDataTypeInfo();
  // Sets displayPrecision: the channel's precision when valid, else the conversion's when valid.
  void calculateDisplayPrecision();
  // "Default", "Unlimited", or the number and " decimal places".
  std::string getPrecisionString() const;
  // The text of conversionType, "UNKNOWN" for a code above 11.
  std::string getConversionTypeString() const;

  // `physical` false: against the value range. True: against the limits and extended limits when
  // the limits are valid, else against the physical range. Bounds belong to their range.
  RangeStatus checkValueRange(double value, bool physical) const;

  bool isTextConversion() const;       // conversionType 7, 8, 10, 11
  bool isNumericConversion() const;    // conversionType 0..6, 9
  bool requiresInterpolation() const;  // conversionType 4

  // The (bitCount + 7) / 8 bytes from byteOffset as they stand (no bit shift); empty when the
  // record is too short or bitCount is 0.
  std::vector<std::uint8_t> extractRawBytes(const std::vector<std::uint8_t>& record) const;
  std::vector<std::uint8_t> extractRawBytes(const std::uint8_t* record, std::size_t size) const;

  // The channel's bits, first bit lowest; big-endian fields of 8 bits and more have their bytes
  // reversed after the gathering. False when the record is too short or bitCount is above 64.
  bool extractBitFieldValue(const std::vector<std::uint8_t>& record, std::uint64_t& value) const;
  bool extractBitFieldValue(const std::uint8_t* record, std::size_t size,
                            std::uint64_t& value) const;

  // The text of a string channel (valueKind 3, 4, 5) up to its first NUL: at most 31 bytes, since
  // bitCount has 8 bits (MdfSigReader::readText gives the whole text). False for other kinds and
  // when the record is too short.
  bool extractStringValue(const std::vector<std::uint8_t>& record, std::string& text) const;
  bool extractStringValue(const std::uint8_t* record, std::size_t size, std::string& text) const;

  // An extracted bit field as a number. Unsigned 64-bit values with the top bit set turn negative.
  // Throws std::runtime_error "Invalid sample: invalidation bit set" when cn_flags bit 1 is set
  // and bit invalidBitPos of `value` itself is 1. False for strings and odd float widths.
  bool convertBitFieldValueToRaw(std::uint64_t value, double& raw) const;

  // The physical value of the channel in `record`; `text` receives the conversion's or the string
  // channel's text. Never throws: a sample whose invalidation bit is set gives false.
  bool convertToPhysical(const std::vector<std::uint8_t>& record, double& phys) const;
  bool convertToPhysical(const std::vector<std::uint8_t>& record, double& phys,
                         std::string& text) const;
  bool convertToPhysical(const std::uint8_t* record, std::size_t size, double& phys,
                         std::string& text) const;

  // The conversion of one raw number. On success a numeric conversion clears `text`; on failure
  // phys is raw and `text` stays (but for an empty default of N2T, which clears it). A raw NaN
  // gives false, except through the identity; so do keys out of order and counts beyond the lists.
  bool applyConversion(double raw, double& phys, std::string& text) const;
  bool convertIdentity(double raw, double& phys, std::string& text) const;
  bool convertLinear(double raw, double& phys, std::string& text) const;
  bool convertRational(double raw, double& phys, std::string& text) const;
  bool convertFormula(double raw, double& phys,
                      std::string& text) const;  // not evaluated: phys = raw
  bool convertN2NInterpol(double raw, double& phys, std::string& text) const;
  bool convertN2N(double raw, double& phys, std::string& text) const;
  bool convertR2N(double raw, double& phys, std::string& text) const;
  bool convertN2T(double raw, double& phys, std::string& text) const;
  bool convertR2T(double raw, double& phys, std::string& text) const;
  bool convertT2N(double raw, double& phys, std::string& text) const;
  bool convertT2T(double raw, double& phys, std::string& text) const;
  bool convertBTT(double raw, double& phys, std::string& text) const;
};

// Where a channel lies. All defaults when the channel does not exist.
struct MdfSigAttr {
  std::string name;
  std::int32_t dgIndex = -1;
  std::int32_t cgIndex = -1;
  std::int32_t cnIndex = -1;
  std::uint32_t byteOffset = 0;  // cn_byte_offset
  std::uint32_t bitCount = 0;    // cn_bit_count, all 32 bits
  std::uint8_t bitOffset = 0;    // cn_bit_offset
  std::uint32_t reserved = 0;    // set by nobody
};

// One record's bytes.
struct MdfSignalRawData {
  std::vector<std::uint8_t> data;
};

}  // namespace tolvex
