// Plain functions: check and recovery of files.
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/plain/Plain.h"
#include "tolvex/MdfColumns.h"
#include "tolvex/MdfRecovery.h"

struct tolvex_check {
  tolvex::MdfCheckReport report;
};

struct tolvex_recovery {
  struct Texts {
    std::vector<const char*> losses;
    std::vector<const char*> repairs;
  };

  tolvex::MdfRecoveryReport report;
  Texts texts;
  std::vector<Texts> groupTexts;
};

namespace tolvex::plain {
namespace {

// Ends an operation from within its callback.
class Cancelled : public std::exception {
 public:
  const char* what() const noexcept override { return "cancelled"; }
};

// What a callback said.
struct Ending {
  bool isCancelled = false;

  MdfProgress progress(tolvex_progress function, void* user) {
    if (function == nullptr) return nullptr;
    return [this, function, user](std::uint64_t done, std::uint64_t total) {
      if (function(user, done, total) == 0) return;
      isCancelled = true;
      throw Cancelled();
    };
  }
  tolvex_status status(const std::string& failure) const {
    if (failure.empty()) return TOLVEX_OK;
    if (failure == kOutOfMemory) return TOLVEX_ERROR_MEMORY;
    return isCancelled ? TOLVEX_ERROR_CANCELLED : TOLVEX_ERROR_FILE;
  }
};

tolvex_recovery::Texts textsOf(const std::vector<std::string>& losses,
                               const std::vector<std::string>& repairs) {
  return {pointersTo(losses), pointersTo(repairs)};
}

tolvex_status filled(bool isFilled) {
  return isFilled ? TOLVEX_OK : TOLVEX_ERROR_ARGUMENT;
}

}  // namespace
}  // namespace tolvex::plain

using namespace tolvex::plain;

tolvex_status tolvex_check_file(const char* path, tolvex_progress progress, void* user,
                                tolvex_check** check) {
  if (check == nullptr) return TOLVEX_ERROR_ARGUMENT;
  *check = nullptr;
  if (path == nullptr) return TOLVEX_ERROR_ARGUMENT;
  LastError unused;
  return guarded(unused, [&]() -> tolvex_status {
    auto made = std::make_unique<tolvex_check>();
    Ending ending;
    made->report = tolvex::checkFile(path, ending.progress(progress, user));
    const tolvex_status status = ending.status(made->report.failure);
    if (status != TOLVEX_ERROR_MEMORY) *check = made.release();
    return status;
  });
}

void tolvex_check_free(tolvex_check* check) {
  delete check;
}

tolvex_status tolvex_check_get_summary(const tolvex_check* check, tolvex_check_summary* summary) {
  if (check == nullptr) return TOLVEX_ERROR_ARGUMENT;
  tolvex_check_summary described = {};
  described.failure = check->report.failure.c_str();
  described.errors = check->report.errors;
  described.warnings = check->report.warnings;
  described.finding_count = check->report.findings.size();
  return filled(fill(summary, described));
}

tolvex_status tolvex_check_get_finding(const tolvex_check* check, uint64_t index,
                                       tolvex_finding* finding) {
  if (check == nullptr || index >= check->report.findings.size()) return TOLVEX_ERROR_ARGUMENT;
  const tolvex::MdfFinding& found = check->report.findings[static_cast<std::size_t>(index)];
  tolvex_finding described = {};
  described.position = found.position;
  described.what = found.what.c_str();
  described.expected = found.expected.c_str();
  described.found = found.found.c_str();
  described.is_error = found.error ? 1 : 0;
  return filled(fill(finding, described));
}

tolvex_status tolvex_recover_file(const char* input, const char* output,
                                  const tolvex_recover_options* options,
                                  tolvex_recovery** recovery) {
  if (recovery == nullptr) return TOLVEX_ERROR_ARGUMENT;
  *recovery = nullptr;
  tolvex_recover_options given;
  if (input == nullptr || output == nullptr || !takeOptions(options, given)) {
    return TOLVEX_ERROR_ARGUMENT;
  }
  LastError unused;
  return guarded(unused, [&]() -> tolvex_status {
    Ending ending;
    tolvex::MdfRecoverOptions how;
    how.verify = given.verify != 0;
    how.progress = ending.progress(given.progress, given.user);
    if (given.max_output != 0)
      how.maxOutput = given.max_output == UINT64_MAX ? 0 : given.max_output;
    if (given.cancelled != nullptr) {
      how.cancelled = [&] {
        ending.isCancelled = ending.isCancelled || given.cancelled(given.user) != 0;
        return ending.isCancelled;
      };
    }
    auto made = std::make_unique<tolvex_recovery>();
    made->report = tolvex::recoverFile(input, output, how);
    made->texts = textsOf(made->report.losses, made->report.repairs);
    for (const tolvex::MdfRecoveredGroup& group : made->report.groups) {
      made->groupTexts.push_back(textsOf(group.losses, group.repairs));
    }
    const tolvex_status status = ending.status(made->report.failure);
    if (status != TOLVEX_ERROR_MEMORY) *recovery = made.release();
    return status;
  });
}

void tolvex_recovery_free(tolvex_recovery* recovery) {
  delete recovery;
}

tolvex_status tolvex_recovery_get_summary(const tolvex_recovery* recovery,
                                          tolvex_recovery_summary* summary) {
  if (recovery == nullptr) return TOLVEX_ERROR_ARGUMENT;
  const tolvex::MdfRecoveryReport& report = recovery->report;
  tolvex_recovery_summary described = {};
  described.failure = report.failure.c_str();
  described.losses = recovery->texts.losses.data();
  described.repairs = recovery->texts.repairs.data();
  described.loss_count = report.losses.size();
  described.repair_count = report.repairs.size();
  described.group_count = report.groups.size();
  described.lossless = report.lossless() ? 1 : 0;
  described.beyond_limit = report.beyondLimit ? 1 : 0;
  return filled(fill(summary, described));
}

tolvex_status tolvex_recovery_get_group(const tolvex_recovery* recovery, uint64_t index,
                                        tolvex_recovered_group* group) {
  if (recovery == nullptr || index >= recovery->report.groups.size()) return TOLVEX_ERROR_ARGUMENT;
  const auto at = static_cast<std::size_t>(index);
  const tolvex::MdfRecoveredGroup& recovered = recovery->report.groups[at];
  tolvex_recovered_group described = {};
  described.name = recovered.name.c_str();
  described.losses = recovery->groupTexts[at].losses.data();
  described.repairs = recovery->groupTexts[at].repairs.data();
  described.loss_count = recovered.losses.size();
  described.repair_count = recovered.repairs.size();
  described.rows = recovered.records;
  described.found_blocks = recovered.foundBlocks;
  described.lost_rows = recovered.lostRecords;
  described.data_group = recovered.dgIndex;
  described.channel_group = recovered.cgIndex;
  return filled(fill(group, described));
}
