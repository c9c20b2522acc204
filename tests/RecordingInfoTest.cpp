// What a file says of its recording beside the groups.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Mdf4/reader/PropertyXml.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/MdfColumnReader.h"

namespace tolvex::test {
namespace {

using Lines = std::vector<std::string>;

constexpr Link kHeader = 64;
enum HeaderLink { kHistory = 1, kAttachments = 3, kEvents = 4, kComment = 5 };

Lines propertiesOf(const std::string& xml) {
  Lines lines;
  for (const MdfProperty& property : commonProperties(xml)) {
    lines.push_back(property.name + '=' + property.value +
                    (property.unit.empty() ? "" : ' ' + property.unit));
  }
  return lines;
}

TEST(RecordingInfo, ReadsPropertiesAlsoOfTreesAndLists) {
  const std::string open = "<HDcomment><TX/><common_properties>";
  const struct {
    std::string xml;
    Lines want;
  } cases[] = {
      {"<e name='a'>1</e></common_properties><e name='b'>2</e>", {"a=1"}},
      {"<e  name = \"a>b\" unit='km&#x2F;h' ro=\"true\">\n  12 </e>", {"a>b=12 km/h"}},
      {"<e name='x'/><e name='y'></e><!-- <e name='z'>1</e> -->", {"x=", "y="}},
      {"<tree name='Device'><e name='id'>A&amp;B&lt;&#228;&#xD800;&#0;&odd;</e>"
       "<tree name='CPU'><e name='t'>3</e></tree></tree><e name='end'>4</e>",
       {"Device.id=A&B<\u00E4&#xD800;&#0;&odd;", "Device.CPU.t=3", "end=4"}},
      {"<list name='L'><li><e name='v'>1</e></li><li><e name='v'>2</e></li></list>"
       "<elist name='E'><eli>p</eli><eli>q</eli></elist>",
       {"L[0].v=1", "L[1].v=2", "E[0]=p", "E[1]=q"}},
      {"<e myname='no' name='yes'>1</e></tree></tree><e name='after'>2</e>", {"yes=1", "after=2"}},
      {"<e name='cut'>1</e><e name='open", {"cut=1"}},
      {"<e name=unquoted>1</e><e name='open>", {"=1"}},
  };
  for (const auto& [xml, want] : cases) EXPECT_EQ(propertiesOf(open + xml), want) << xml;
  EXPECT_EQ(propertiesOf("<e name='a'>1</e>"), Lines{});
  std::string deep = open;
  for (int i = 0; i < 100'000; ++i) deep += "<tree name='t'><e name='e'>1</e>";
  EXPECT_EQ(propertiesOf(deep).size(), 16U);
  std::string many = open;
  for (int i = 0; i < 100'000; ++i) many += "<e name='e'>1</e>";
  EXPECT_EQ(propertiesOf(many).size(), 10'000U);
}

// With an attachment whose embedded bytes are larger than what a reader would take at once.
FileBuilder describedFile() {
  FileBuilder file({.startTimeNs = 1'000});
  file.setLink(kHeader, kComment,
               file.md("<HDcomment><TX>a drive</TX><common_properties><e name='car'>red</e>"
                       "</common_properties></HDcomment>"));
  const Link comment = file.md(
      "<FHcomment><TX>made</TX><tool_id> T </tool_id><tool_vendor>V"
      "</tool_vendor><tool_version>1.0</tool_version><user_name>me"
      "</user_name></FHcomment>");
  const auto history = [&](std::uint64_t timeNs, std::uint8_t flags) {
    return file.block("FH", {0, comment},
                      packed(timeNs, std::uint32_t{0}, flags, std::uint8_t{0}, std::uint16_t{0}));
  };
  const Link first = history(5, 0);
  file.setLink(kHeader, kHistory, file.chain({first, history(7, 1)}));
  const auto attachment = [&](const std::string& name, std::uint16_t flags, std::uint64_t size) {
    Bytes data = packed(flags, std::uint16_t{0}, std::uint32_t{0}, std::uint64_t{0},
                        std::uint64_t{0}, std::uint64_t{500}, size);
    data.resize(data.size() + size);
    return file.block("AT", {0, file.tx(name), file.tx("text/plain"), 0}, data);
  };
  file.setLink(kHeader, kAttachments,
               file.chain({attachment("in.dbc", 3, 300), attachment("beside.txt", 0, 0)}));
  const auto event = [&](std::uint8_t type, std::int64_t base) {
    return file.block("EV", {0, 0, 0, file.tx("brake"), 0},
                      packed(type, std::uint8_t{1}, std::uint8_t{0}, std::uint8_t{4},
                             std::uint32_t{0}, std::uint32_t{0}, std::uint32_t{0}, base, 1e-3));
  };
  file.setLink(kHeader, kEvents, file.chain({event(5, 1500), event(6, -2)}));
  file.signalGroup({}, {packed(0.0)});
  return file;
}

TEST(RecordingInfo, ReadsHistoryAttachmentsAndEvents) {
  const FileBuilder file = describedFile();
  MdfColumnReader reader(file.write());
  ASSERT_TRUE(reader.open()) << reader.error();
  const MdfRecordingInfo& info = reader.info();
  EXPECT_EQ(info.comment, "a drive");
  ASSERT_EQ(info.properties.size(), 1U);
  EXPECT_EQ(info.properties[0].name + info.properties[0].value, "carred");
  ASSERT_EQ(info.history.size(), 2U);
  EXPECT_EQ(info.history[0].timeNs, 5);
  EXPECT_EQ(info.history[1].timeNs, 7);
  EXPECT_TRUE(!info.history[0].isLocal && info.history[1].isLocal);
  const MdfHistoryEntry& entry = info.history[1];
  EXPECT_EQ(entry.comment, "made");
  EXPECT_EQ(entry.tool + entry.toolVersion + entry.vendor + entry.user, "T1.0Vme");
  ASSERT_EQ(info.attachments.size(), 2U);
  EXPECT_EQ(info.attachments[0].name, "in.dbc");
  EXPECT_EQ(info.attachments[0].mimeType, "text/plain");
  EXPECT_TRUE(info.attachments[0].isEmbedded && info.attachments[0].isCompressed);
  EXPECT_EQ(info.attachments[0].size, 500U);
  EXPECT_EQ(info.attachments[0].storedSize, 300U);
  EXPECT_FALSE(info.attachments[1].isEmbedded);
  ASSERT_EQ(info.events.size(), 2U);
  EXPECT_EQ(info.events[0].name, "brake");
  EXPECT_EQ(info.events[0].type, 5);
  EXPECT_EQ(info.events[0].cause, 4);
  EXPECT_EQ(info.events[0].position, 1.5);
  EXPECT_EQ(info.events[1].position, -0.002);
  EXPECT_TRUE(reader.problems().empty()) << reader.problems()[0];
}

// Each chain ends at what is wrong in it; the groups stay.
TEST(RecordingInfo, EndsAChainAtTheFirstFault) {
  enum Fault { Loop, OtherKind, Outside, NoRoom };
  const struct {
    const char* kind;
    Fault fault;
    const char* said;
  } cases[] = {{"FH", Loop, "for the second time"},  {"FH", OtherKind, "of another kind"},
               {"FH", Outside, "the file ends at"},  {"AT", Loop, "for the second time"},
               {"AT", OtherKind, "of another kind"}, {"AT", NoRoom, "no room for its record"},
               {"AT", Outside, "the file ends at"},  {"EV", Loop, "for the second time"},
               {"EV", OtherKind, "of another kind"}, {"EV", Outside, "the file ends at"}};
  for (const auto& [kind, fault, said] : cases) {
    SCOPED_TRACE(testing::Message() << kind << ' ' << said);
    FileBuilder file = describedFile();
    const Link first = file.firstOf(kind);
    if (fault == NoRoom) {
      file.setLinkCount(first, ~std::uint64_t{0} / 8);
    } else {
      file.setLink(first, 0,
                   fault == Loop        ? first
                   : fault == OtherKind ? file.firstOf("DG")
                                        : file.size() + 8);
    }
    MdfColumnReader reader(file.write());
    ASSERT_TRUE(reader.open());
    const MdfRecordingInfo& info = reader.info();
    const std::size_t count = kind[0] == 'F'   ? info.history.size()
                              : kind[0] == 'A' ? info.attachments.size()
                                               : info.events.size();
    EXPECT_EQ(count, fault == NoRoom ? 0U : 1U);
    ASSERT_EQ(reader.problems().size(), 1U);
    EXPECT_NE(reader.problems()[0].find(said), std::string::npos) << reader.problems()[0];
    EXPECT_EQ(reader.groups().size(), 1U);
  }
}

}  // namespace
}  // namespace tolvex::test
