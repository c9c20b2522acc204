// How a result gets its name: whole or not at all. And how large it may become.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "Mdf4/base/OutputLimit.h"
#include "Mdf4/base/ResultFile.h"
#include "Mdf4/base/System.h"
#include "tests/support/FileBuilder.h"

namespace tolvex::test {
namespace {

namespace fs = std::filesystem;

class ResultFileTest : public testing::Test {
 protected:
  ResultFileTest() { fs::create_directory(dir_.path("sub")); }

  void put(const std::string& name, const std::string& text, mode_t mode = 0644) const {
    std::ofstream(dir_.path(name)) << text;
    ::chmod(dir_.path(name).c_str(), mode);
  }
  std::string textOf(const std::string& name) const { return contentOf(dir_.path(name)); }
  static unsigned modeOf(const std::string& path) {
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777U : 0;
  }
  std::set<std::string> names() const {
    std::set<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(dir_.path(""))) {
      names.insert(entry.path().filename());
    }
    return names;
  }
  static void write(const ResultFile& file, const std::string& text) {
    EXPECT_EQ(::write(file.descriptor(), text.data(), text.size()), ssize_t(text.size()));
  }

  TempDir dir_;
};

// Also a file that another process makes while the result grows.
TEST_F(ResultFileTest, LeavesTheNameToAFileThatIsToKeepIt) {
  put("old", "old");
  for (const bool before : {true, false}) {
    const std::string name = before ? "old" : "new";
    EXPECT_EQ(ResultFile::wouldReplace(dir_.path(name)), before);
    ResultFile result;
    result.keepExisting();
    ASSERT_EQ(result.open(dir_.path(name)), !before);
    put(name, "old");
    EXPECT_FALSE(result.publish());
    EXPECT_EQ(result.error(), "File exists");
    EXPECT_EQ(textOf(name), "old");
  }
  EXPECT_EQ(names(), (std::set<std::string>{"new", "old", "sub"}));
}

TEST_F(ResultFileTest, ReplacesWhatItsNameLeadsToOnceItIsPublished) {
  put("old", "old");
  put("sub/far", "old");
  fs::create_symlink("old", dir_.path("link"));
  fs::create_symlink("../link", dir_.path("sub/second"));
  fs::create_symlink(dir_.path("sub/far"), dir_.path("absolute"));
  fs::create_symlink("sub/none", dir_.path("dangling"));
  const std::set<std::string> before = names();
  const std::pair<const char*, const char*> targets[] = {
      {"new", "new"},        {"old", "old"},          {"link", "old"},
      {"sub/second", "old"}, {"absolute", "sub/far"}, {"dangling", "sub/none"}};
  for (const auto& [name, file] : targets) {
    SCOPED_TRACE(name);
    const bool isNew = !fs::exists(dir_.path(file));
    const bool isLink = fs::is_symlink(dir_.path(name));
    for (const bool published : {false, true}) {
      put("old", "old");
      put("sub/far", "old");
      ResultFile result;
      ASSERT_TRUE(result.open(dir_.path(name))) << result.error();
      EXPECT_TRUE(fs::equivalent(fs::path(result.currentPath()).parent_path(),
                                 fs::path(dir_.path(file)).parent_path()));
      write(result, "result");
      ASSERT_TRUE(result.close());
      EXPECT_EQ(textOf(file), isNew ? "" : "old");
      ASSERT_TRUE(!published || result.publish()) << result.error();
      result.discard();
      EXPECT_EQ(textOf(file), published ? "result" : isNew ? "" : "old");
      EXPECT_EQ(fs::is_symlink(dir_.path(name)), isLink);
    }
    if (isNew) fs::remove(dir_.path(file));
    EXPECT_EQ(names(), before);
  }
}

TEST_F(ResultFileTest, HasThePermissionsThatItsUsersExpect) {
  const mode_t mask = ::umask(027);
  put("private", "", 0600);
  put("shared", "", 0664);
  const struct {
    const char* name;
    const char* model;
    unsigned whileWritten;
    unsigned mode;
  } cases[] = {{"new", "", 0640, 0640},           {"private", "", 0600, 0600},
               {"shared", "", 0600, 0664},        {"other", "private", 0600, 0600},
               {"another", "shared", 0600, 0664}, {"shared", "private", 0600, 0600}};
  for (const auto& [name, model, whileWritten, mode] : cases) {
    SCOPED_TRACE(testing::Message() << name << ", as " << model);
    ResultFile result;
    ASSERT_TRUE(result.open(dir_.path(name), *model != '\0' ? dir_.path(model) : ""));
    EXPECT_EQ(modeOf(result.currentPath()), whileWritten);
    ASSERT_TRUE(result.publish());
    EXPECT_EQ(modeOf(dir_.path(name)), mode);
  }
  ::umask(mask);
}

TEST_F(ResultFileTest, SaysWhyThereCannotBeOne) {
  put("file", "");
  fs::create_symlink("circle", dir_.path("circle"));
  const std::pair<std::string, const char*> targets[] = {
      {dir_.path("sub"), "Is a directory"},          {dir_.path("none/"), "Is a directory"},
      {dir_.path("none/x"), "No such file"},         {"", "No such file"},
      {dir_.path("file/x"), "Not a directory"},      {dir_.path("circle"), "symbolic links"},
      {dir_.path(std::string(300, 'x')), "too long"}};
  const std::set<std::string> before = names();
  for (const auto& [path, why] : targets) {
    ResultFile result;
    EXPECT_FALSE(result.open(path)) << path;
    EXPECT_NE(result.error().find(why), std::string::npos) << result.error();
    EXPECT_FALSE(result.publish());
  }
  {
    ResultFile result;
    ASSERT_TRUE(result.open(dir_.path("file")));
    fs::remove(dir_.path("file"));
    fs::create_directory(dir_.path("file"));
    EXPECT_FALSE(result.publish());
    EXPECT_NE(result.error().find("Is a directory"), std::string::npos) << result.error();
  }
  EXPECT_EQ(names(), before);
}

TEST_F(ResultFileTest, TakesNoNameOfARecording) {
  ResultFile early;
  ASSERT_TRUE(early.open(dir_.path("log.mf4")));
  std::string error;
  const auto recording = openSystemFile(dir_.path("log.mf4"), OpenMode::Create, error);
  ASSERT_NE(recording, nullptr) << error;
  EXPECT_FALSE(early.publish());
  ResultFile late;
  EXPECT_FALSE(late.open(dir_.path("log.mf4")));
  EXPECT_NE(late.error().find("locked"), std::string::npos) << late.error();
  EXPECT_TRUE(recording->close());
  ResultFile last;
  EXPECT_TRUE(last.open(dir_.path("log.mf4")));
}

// As several processes do.
TEST_F(ResultFileTest, SharesItsNameWithOthersUntilTheLastOneTakesIt) {
  ResultFile first;
  ResultFile second;
  ASSERT_TRUE(first.open(dir_.path("out")));
  ASSERT_TRUE(second.open(dir_.path("out")));
  EXPECT_NE(first.currentPath(), second.currentPath());
  write(first, "first, which is longer");
  write(second, "second");
  ASSERT_TRUE(first.publish());
  ASSERT_TRUE(second.publish());
  EXPECT_EQ(textOf("out"), "second");
}

TEST(OutputLimit, IsAThousandTimesTheInputUnlessItIsSet) {
  constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;
  constexpr std::uint64_t kMost = ~std::uint64_t{0};
  EXPECT_EQ(outputLimit({}, 0), kGiB);
  EXPECT_EQ(outputLimit({}, 1'073'741), kGiB);
  EXPECT_EQ(outputLimit({}, 1'073'742), 1'073'742'000U);
  EXPECT_EQ(outputLimit({}, kMost / 999), kMost);
  EXPECT_EQ(outputLimit(100, kGiB), 100U);
  EXPECT_EQ(outputLimit(0, 5), kMost);
}

}  // namespace
}  // namespace tolvex::test
