#include "tests/support/RecordedFile.h"

#include <sstream>
#include <stdexcept>

#include "Mdf4/format/BlockLoader.h"
#include "Mdf4/format/DataBlocks.h"
#include "Mdf4/format/MDF4File.h"

namespace tolvex::test {
namespace {

void require(bool condition, const std::string& what, Link at) {
  if (!condition) throw std::runtime_error(what + " at " + std::to_string(at));
}

template <class Block>
std::unique_ptr<Block> blockAt(DirectFile& file, Link at) {
  auto block = loadBlockAs<Block>(file, at);
  require(block != nullptr && at % 8 == 0, "no such block", at);
  return block;
}

std::string textAt(DirectFile& file, Link at, const char* missing = "") {
  return at == 0 ? missing : std::string(blockAt<M4TXBlock>(file, at)->text());
}

std::optional<RecordedConversion> conversionAt(DirectFile& file, Link at) {
  if (at == 0) return {};
  const auto cc = blockAt<M4CCBlock>(file, at);
  require(cc->linkCount() == link::cc_ref + cc->cc_ref_count, "another number of references", at);
  require(cc->extra().size() == cc->cc_val_count, "another number of values", at);
  RecordedConversion conversion{cc->cc_type, {cc->extra().begin(), cc->extra().end()}};
  for (std::size_t i = 0; i < cc->cc_ref_count; ++i) {
    conversion.texts.push_back(textAt(file, cc->link(link::cc_ref + i), kNoText));
  }
  return conversion;
}

std::vector<RecordedChannel> channelsAt(DirectFile& file, Link at) {
  std::vector<RecordedChannel> channels;
  while (at != 0) {
    const auto cn = blockAt<M4CNBlock>(file, at);
    require(cn->linkCount() == 8 && cn->link(link::cn_data) == 0, "not a recorded channel", at);
    channels.push_back({textAt(file, cn->link(link::cn_tx_name)),
                        textAt(file, cn->link(link::cn_md_unit)),
                        textAt(file, cn->link(link::cn_md_comment)), *cn,
                        conversionAt(file, cn->link(link::cn_cc_conversion)),
                        channelsAt(file, cn->link(link::cn_composition))});
    at = cn->link(link::cn_cn_next);
  }
  return channels;
}

void readData(DirectFile& file, Link at, RecordedGroup& group) {
  while (at != 0) {
    const auto dl = blockAt<M4DLBlock>(file, at);
    require(dl->dl_flags == kDlFlagEqualLength && !dl->extra().empty(), "no equal length", at);
    require(group.lists.empty() || dl->extra()[0] == group.equalLength, "another length", at);
    require(dl->linkCount() == link::dl_data + dl->dl_count, "another count of links", at);
    group.equalLength = dl->extra()[0];
    group.lists.emplace_back();
    for (std::size_t i = link::dl_data; i < dl->linkCount(); ++i) {
      group.lastBlock = dl->link(i);
      const auto dt = blockAt<M4DTBlock>(file, group.lastBlock);
      group.lists.back().push_back(dt->data().size());
      group.bytes.insert(group.bytes.end(), dt->data().begin(), dt->data().end());
    }
    at = dl->link(link::dl_dl_next);
  }
}

RecordedGroup groupAt(DirectFile& file, const M4DGBlock& dg) {
  require(dg.dg_rec_id_size == 0, "record ids", dg.position());
  const auto cg = blockAt<M4CGBlock>(file, dg.link(link::dg_cg_first));
  require(cg->linkCount() == 6 && cg->link(link::cg_cg_next) == 0, "not a recorded group",
          cg->position());
  RecordedGroup group{textAt(file, cg->link(link::cg_md_comment)),
                      textAt(file, cg->link(link::cg_tx_acq_name)), *cg,
                      channelsAt(file, cg->link(link::cg_cn_first))};
  readData(file, dg.link(link::dg_data), group);
  return group;
}

void describe(const RecordedChannel& channel, std::ostream& out) {
  const RecordedPlace place = channel.place();
  out << " " << channel.name << "[" << channel.unit << "]" << channel.comment << " type "
      << int{channel.cn.cn_type} << "/" << int{channel.cn.cn_sync_type} << "/" << place[0] << " at "
      << place[1] << "." << place[2] << ":" << place[3] << " flags " << channel.cn.cn_flags
      << " limits " << channel.cn.cn_limit_min << ".." << channel.cn.cn_limit_max;
  if (channel.conversion) {
    out << " by " << channel.conversion->kind;
    for (const double value : channel.conversion->values) out << " " << value;
    for (const std::string& text : channel.conversion->texts) out << " '" << text << "'";
  }
  out << " {";
  for (const RecordedChannel& child : channel.children) describe(child, out);
  out << "}";
}

}  // namespace

std::vector<Bytes> RecordedGroup::records() const {
  std::vector<Bytes> records;
  if (cg.cg_data_bytes == 0) return records;
  require(bytes.size() % cg.cg_data_bytes == 0, "half a record", lastBlock);
  for (auto at = bytes.begin(); at != bytes.end(); at += cg.cg_data_bytes) {
    records.emplace_back(at, at + cg.cg_data_bytes);
  }
  return records;
}

std::string RecordedGroup::description() const {
  std::ostringstream out;
  out << comment << " from " << acquisitionName << " flags " << cg.cg_flags << " bytes "
      << cg.cg_data_bytes << "+" << cg.cg_inval_bytes << ":";
  for (const RecordedChannel& channel : channels) describe(channel, out);
  return out.str();
}

RecordedFile::RecordedFile(const std::string& path) {
  MDF4File file;
  if (!file.Open(path, false)) throw std::runtime_error(path + ": " + file.error());
  id = file.id();
  header = *file.header();
  for (Link at = file.header()->link(link::hd_dg_first); at != 0;) {
    const auto dg = blockAt<M4DGBlock>(file, at);
    groups.push_back(groupAt(file, *dg));
    at = dg->link(link::dg_dg_next);
  }
}

}  // namespace tolvex::test
