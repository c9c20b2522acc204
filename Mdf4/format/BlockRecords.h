// What stands in the file: type codes, the block header, the fixed record of every block kind and
// the order of each kind's links. Structs in file order, copied as they stand.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>

namespace tolvex {

static_assert(std::numeric_limits<double>::is_iec559 && sizeof(double) == 8);

// The two letters after "##", as one little-endian number.
constexpr std::uint16_t blockType(char first, char second) {
  return static_cast<std::uint16_t>(static_cast<unsigned char>(first) |
                                    static_cast<unsigned char>(second) << 8);
}

namespace block_type {
inline constexpr std::uint16_t kHD = blockType('H', 'D');
inline constexpr std::uint16_t kFH = blockType('F', 'H');
inline constexpr std::uint16_t kTX = blockType('T', 'X');
inline constexpr std::uint16_t kMD = blockType('M', 'D');
inline constexpr std::uint16_t kDG = blockType('D', 'G');
inline constexpr std::uint16_t kCG = blockType('C', 'G');
inline constexpr std::uint16_t kCN = blockType('C', 'N');
inline constexpr std::uint16_t kCC = blockType('C', 'C');
inline constexpr std::uint16_t kSI = blockType('S', 'I');
inline constexpr std::uint16_t kSR = blockType('S', 'R');
inline constexpr std::uint16_t kCA = blockType('C', 'A');
inline constexpr std::uint16_t kCH = blockType('C', 'H');
inline constexpr std::uint16_t kAT = blockType('A', 'T');
inline constexpr std::uint16_t kEV = blockType('E', 'V');
inline constexpr std::uint16_t kDL = blockType('D', 'L');
inline constexpr std::uint16_t kLD = blockType('L', 'D');
inline constexpr std::uint16_t kHL = blockType('H', 'L');
inline constexpr std::uint16_t kDZ = blockType('D', 'Z');
inline constexpr std::uint16_t kDT = blockType('D', 'T');
inline constexpr std::uint16_t kSD = blockType('S', 'D');
inline constexpr std::uint16_t kRD = blockType('R', 'D');
inline constexpr std::uint16_t kDV = blockType('D', 'V');
inline constexpr std::uint16_t kDI = blockType('D', 'I');
inline constexpr std::uint16_t kRV = blockType('R', 'V');
inline constexpr std::uint16_t kRI = blockType('R', 'I');
}  // namespace block_type

inline constexpr std::uint16_t kBlockMarker = blockType('#', '#');
inline constexpr std::uint64_t kBlockHeaderSize = 24;
inline constexpr std::uint64_t kLinkSize = 8;
inline constexpr std::uint64_t kIdBlockSize = 64;
inline constexpr std::uint64_t kHeaderBlockPosition = 64;  // of the HD
inline constexpr std::uint64_t kBlockAlignment = 8;        // of positions

// Where a block may begin, at or behind the position.
constexpr std::uint64_t alignUp(std::uint64_t position) {
  return (position + kBlockAlignment - 1) / kBlockAlignment * kBlockAlignment;
}

// id_file: of a finalized file, and of one whose logger did not come to finalize it.
inline constexpr std::string_view kFileId = "MDF     ";
inline constexpr std::string_view kUnfinalizedFileId = "UnFinMF ";
// id_ver: the version numbers of the format.
inline constexpr std::uint16_t kOldestVersion = 400;
inline constexpr std::uint16_t kNewestVersion = 499;

// Bits of id_unfin_flags: what a logger did not come to bring up to date.
enum class Unfinished : std::uint16_t {
  CycleCounts = 0x01,
  ReductionCounts = 0x02,
  LastDataLength = 0x04,
  LastReductionLength = 0x08,
  LastList = 0x10,
  ValueByteCounts = 0x20,
  ValueOffsets = 0x40,
};
constexpr bool has(std::uint16_t flags, Unfinished step) {
  return (flags & static_cast<std::uint16_t>(step)) != 0;
}

// The identification block, at the start of the file.
struct IdBlock {
  char id_file[8];  // "MDF     "
  char id_vers[8];  // version text, padded with blanks
  char id_prog[8];  // program identifier, padded with blanks
  std::uint8_t id_reserved1[4];
  std::uint16_t id_ver;
  std::uint8_t id_reserved2[30];
  std::uint16_t id_unfin_flags;
  std::uint16_t id_custom_unfin_flags;
};
static_assert(sizeof(IdBlock) == kIdBlockSize && offsetof(IdBlock, id_ver) == 28 &&
              offsetof(IdBlock, id_unfin_flags) == 60);

struct BlockHeader {
  std::uint16_t marker = kBlockMarker;
  std::uint16_t type = 0;
  std::uint32_t reserved = 0;
  std::uint64_t length = 0;  // of the whole block
  std::uint64_t linkCount = 0;

  // Bytes after the links. False when the block is too short for its links.
  bool dataLength(std::uint64_t& bytes) const {
    if (length < kBlockHeaderSize || linkCount > (length - kBlockHeaderSize) / kLinkSize) {
      return false;
    }
    bytes = length - kBlockHeaderSize - linkCount * kLinkSize;
    return true;
  }
};
static_assert(sizeof(BlockHeader) == kBlockHeaderSize);

struct m4HDRecord {
  std::uint64_t hd_start_time_ns;
  std::int16_t hd_tz_offset_min;
  std::int16_t hd_dst_offset_min;
  std::uint8_t hd_time_flags;  // bit 0: local time, bit 1: the offsets are valid
  std::uint8_t hd_time_class;
  std::uint8_t hd_flags;
  std::uint8_t hd_reserved;
  double hd_start_angle_rad;
  double hd_start_distance_m;
};

struct m4FHRecord {
  std::uint64_t fh_time_ns;
  std::int16_t fh_tz_offset_min;
  std::int16_t fh_dst_offset_min;
  std::uint8_t fh_time_flags;
  std::uint8_t fh_reserved[3];
};

struct m4DGRecord {
  std::uint8_t dg_rec_id_size;  // bytes of record id in front of each record
  std::uint8_t dg_reserved[7];
};

struct m4CGRecord {
  std::uint64_t cg_record_id;
  std::uint64_t cg_cycle_count;
  std::uint16_t cg_flags;  // bit 0: variable-length signal data
  std::uint16_t cg_path_separator;
  std::uint8_t cg_reserved[4];
  std::uint32_t cg_data_bytes;
  std::uint32_t cg_inval_bytes;
};

struct m4CNRecord {
  std::uint8_t cn_type;
  std::uint8_t cn_sync_type;
  std::uint8_t cn_data_type;
  std::uint8_t cn_bit_offset;
  std::uint32_t cn_byte_offset;
  std::uint32_t cn_bit_count;
  std::uint32_t cn_flags;
  std::uint32_t cn_inval_bit_pos;
  std::uint8_t cn_precision;
  std::uint8_t cn_reserved;
  std::uint16_t cn_attachment_count;
  double cn_val_range_min;
  double cn_val_range_max;
  double cn_limit_min;
  double cn_limit_max;
  double cn_limit_ext_min;
  double cn_limit_ext_max;
};

struct m4CCRecord {
  std::uint8_t cc_type;
  std::uint8_t cc_precision;
  std::uint16_t cc_flags;
  std::uint16_t cc_ref_count;
  std::uint16_t cc_val_count;
  double cc_phy_range_min;
  double cc_phy_range_max;
};

struct m4SIRecord {
  std::uint8_t si_type;
  std::uint8_t si_bus_type;
  std::uint8_t si_flags;
  std::uint8_t si_reserved[5];
};

struct m4SRRecord {
  std::uint64_t sr_cycle_count;
  double sr_interval;
  std::uint8_t sr_sync_type;
  std::uint8_t sr_flags;
  std::uint8_t sr_reserved[6];
};

struct m4CARecord {
  std::uint8_t ca_type;
  std::uint8_t ca_storage;
  std::uint16_t ca_ndim;
  std::uint32_t ca_flags;
  std::int32_t ca_byte_offset_base;
  std::uint32_t ca_inval_bit_pos_base;
};

struct m4CHRecord {
  std::uint32_t ch_element_count;
  std::uint8_t ch_type;
  std::uint8_t ch_reserved[3];
};

struct m4ATRecord {
  std::uint16_t at_flags;
  std::uint16_t at_creator_index;
  std::uint8_t at_reserved[4];
  std::uint8_t at_md5_checksum[16];
  std::uint64_t at_original_size;
  std::uint64_t at_embedded_size;
};

struct m4EVRecord {
  std::uint8_t ev_type;
  std::uint8_t ev_sync_type;
  std::uint8_t ev_range_type;
  std::uint8_t ev_cause;
  std::uint8_t ev_flags;
  std::uint8_t ev_reserved[3];
  std::uint32_t ev_scope_count;
  std::uint16_t ev_attachment_count;
  std::uint16_t ev_creator_index;
  std::int64_t ev_sync_base_value;
  double ev_sync_factor;
};

struct m4DLRecord {
  std::uint8_t dl_flags;  // bit 0: all data blocks but the last hold equally many bytes
  std::uint8_t dl_reserved[3];
  std::uint32_t dl_count;
};

struct m4LDRecord {
  std::uint32_t ld_flags;  // bit 31: invalidation blocks are listed beside the data blocks
  std::uint32_t ld_count;
};

struct m4HLRecord {
  std::uint16_t hl_flags;
  std::uint8_t hl_zip_type;
  std::uint8_t hl_reserved[5];
};

struct m4DZRecord {
  std::uint16_t dz_org_block_type;
  std::uint8_t dz_zip_type;  // 0 deflate, 1 transposition and deflate
  std::uint8_t dz_reserved;
  std::uint32_t dz_zip_parameter;    // of a transposition: columns, i.e. bytes per record
  std::uint64_t dz_org_data_length;  // inflated
  std::uint64_t dz_data_length;      // compressed
};

static_assert(sizeof(m4HDRecord) == 32 && offsetof(m4HDRecord, hd_start_angle_rad) == 16);
static_assert(sizeof(m4FHRecord) == 16);
static_assert(sizeof(m4DGRecord) == 8);
static_assert(sizeof(m4CGRecord) == 32 && offsetof(m4CGRecord, cg_data_bytes) == 24);
static_assert(sizeof(m4CNRecord) == 72 && offsetof(m4CNRecord, cn_val_range_min) == 24);
static_assert(sizeof(m4CCRecord) == 24 && offsetof(m4CCRecord, cc_phy_range_min) == 8);
static_assert(sizeof(m4SIRecord) == 8);
static_assert(sizeof(m4SRRecord) == 24);
static_assert(sizeof(m4CARecord) == 16);
static_assert(sizeof(m4CHRecord) == 8);
static_assert(sizeof(m4ATRecord) == 40 && offsetof(m4ATRecord, at_original_size) == 24);
static_assert(sizeof(m4EVRecord) == 32 && offsetof(m4EVRecord, ev_sync_base_value) == 16);
static_assert(sizeof(m4DLRecord) == 8);
static_assert(sizeof(m4LDRecord) == 8);
static_assert(sizeof(m4HLRecord) == 8);
static_assert(sizeof(m4DZRecord) == 24 && offsetof(m4DZRecord, dz_org_data_length) == 8);

// dg_rec_id_size: bytes of a record id, unless there is none.
constexpr bool isRecordIdSize(std::uint8_t bytes) {
  return bytes == 1 || bytes == 2 || bytes == 4 || bytes == 8;
}
// cg_flags
inline constexpr std::uint16_t kCgFlagVlsd = 0x0001;
inline constexpr std::uint16_t kCgFlagBusEvent = 0x0002;
// sr_flags
inline constexpr std::uint8_t kSrFlagInvalidation = 0x01;
// at_flags
inline constexpr std::uint16_t kAtFlagEmbedded = 0x1;
inline constexpr std::uint16_t kAtFlagCompressed = 0x2;
// dl_flags, ld_flags
inline constexpr std::uint8_t kDlFlagEqualLength = 0x01;
inline constexpr std::uint32_t kLdFlagEqualLength = 0x1;
inline constexpr std::uint32_t kLdFlagInvalidation = 0x80000000;
// dz_zip_type, hl_zip_type
inline constexpr std::uint8_t kZipDeflate = 0;
inline constexpr std::uint8_t kZipTransposeDeflate = 1;
// si_type, si_bus_type
inline constexpr std::uint8_t kSiTypeBus = 2;
inline constexpr std::uint8_t kSiBusCan = 2;

// cn_type
namespace channel_type {
enum : std::uint8_t {
  kFixedLength,
  kVlsd,
  kMaster,
  kVirtualMaster,
  kSynchronization,
  kMaximumLength,
  kVirtualData,
  kVlsc,
};
}  // namespace channel_type

// In signal data a value has its length in front, a 32-bit number.
inline constexpr std::uint64_t kValuePrefix = sizeof(std::uint32_t);

// cn_sync_type: 0 none, then what a master counts.
inline constexpr std::uint8_t kSyncTime = 1;
inline constexpr std::uint8_t kSyncIndex = 4;

// cn_data_type; an odd number up to kUtf16BigEndian is big-endian.
namespace data_type {
enum : std::uint8_t {
  kUnsigned,
  kUnsignedBigEndian,
  kSigned,
  kSignedBigEndian,
  kFloat,
  kFloatBigEndian,
  kLatin1,
  kUtf8,
  kUtf16,
  kUtf16BigEndian,
  kBytes,
  kMimeSample,
  kMimeStream,
  kCanOpenDate,
  kCanOpenTime,
  kComplex,
  kComplexBigEndian,
};
}  // namespace data_type

// How raw values become physical ones (cc_type): N value, R value range, T text; kN2N looks up the
// exact value, kN2NInterpol interpolates; kBTT is a text for each group of bits.
namespace conversion_type {
enum : std::uint8_t {
  kIdentity,
  kLinear,
  kRational,
  kFormula,
  kN2NInterpol,
  kN2N,
  kR2N,
  kN2T,
  kR2T,
  kT2N,
  kT2T,
  kBTT,
};
}  // namespace conversion_type

// cn_flags
inline constexpr std::uint32_t kCnFlagAllInvalid = 0x01;
inline constexpr std::uint32_t kCnFlagInvalidBit = 0x02;
inline constexpr std::uint32_t kCnFlagPrecision = 0x04;
inline constexpr std::uint32_t kCnFlagValueRange = 0x08;
inline constexpr std::uint32_t kCnFlagLimit = 0x10;
inline constexpr std::uint32_t kCnFlagLimitExt = 0x20;
inline constexpr std::uint32_t kCnFlagDefaultX = 0x1000;  // three links more
// cc_flags
inline constexpr std::uint16_t kCcFlagPrecision = 0x01;
inline constexpr std::uint16_t kCcFlagPhysRange = 0x02;

// Link indices.
namespace link {
enum HD : std::size_t {
  hd_dg_first,
  hd_fh_first,
  hd_ch_first,
  hd_at_first,
  hd_ev_first,
  hd_md_comment
};
enum FH : std::size_t { fh_fh_next, fh_md_comment };
enum DG : std::size_t { dg_dg_next, dg_cg_first, dg_data, dg_md_comment };
enum CG : std::size_t {
  cg_cg_next,
  cg_cn_first,
  cg_tx_acq_name,
  cg_si_acq_source,
  cg_sr_first,
  cg_md_comment,
  cg_cg_master
};
enum CN : std::size_t {
  cn_cn_next,
  cn_composition,
  cn_tx_name,
  cn_si_source,
  cn_cc_conversion,
  cn_data,
  cn_md_unit,
  cn_md_comment
};
enum CC : std::size_t { cc_tx_name, cc_md_unit, cc_md_comment, cc_cc_inverse, cc_ref };
enum SI : std::size_t { si_tx_name, si_tx_path, si_md_comment };
enum SR : std::size_t { sr_sr_next, sr_data };
enum EV : std::size_t { ev_ev_next, ev_ev_parent, ev_ev_range, ev_tx_name, ev_md_comment };
enum AT : std::size_t { at_at_next, at_tx_filename, at_tx_mimetype, at_md_comment };
enum CH : std::size_t { ch_ch_next, ch_ch_first, ch_tx_name, ch_md_comment };
enum CA : std::size_t { ca_composition };
enum DL : std::size_t { dl_dl_next, dl_data };
enum LD : std::size_t { ld_ld_next, ld_data };
enum HL : std::size_t { hl_dl_first };
}  // namespace link

}  // namespace tolvex
