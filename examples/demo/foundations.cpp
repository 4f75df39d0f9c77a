// Foundations: error names, UUIDs, random pauses, the privileged section.
#include <unistd.h>

#include <chrono>

#include "demo.h"
#include "vantdr/error.h"
#include "vantdr/json_text.h"
#include "vantdr/privileged_section.h"
#include "vantdr/utils.h"

namespace {

void Run(const std::string&) {
  using namespace VantDRCore;
  Demo::Step("Error codes and their names");
  std::vector<std::vector<std::string>> rows;
  for (int code : {401, 404, 405, 407, 522, 599, 450}) {
    rows.push_back({std::to_string(code), ERR::ToString(code)});
  }
  Demo::Table({"code", "name"}, rows);

  Demo::Step("An error record, as callers read it");
  ErrRecorder record;
  record.SetErr(ERR::ERR_DATABASE_LOCK, "database is locked");
  Demo::Show("GetErr()", JsonToString(record.GetErr()));

  Demo::Step("Utilities");
  Demo::Show("GenerateUUID()", GenerateUUID());
  Demo::Show("IsVolPath(\"/volume1/share\")",
             Validator::IsVolPath("/volume1/share") ? "true" : "false");
  Demo::Show("IsVolPath(\"/home/share\")", Validator::IsVolPath("/home/share") ? "true" : "false");
  auto start = std::chrono::steady_clock::now();
  RandomSleepInMSec(20, 40);
  auto slept = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  Demo::Show("RandomSleepInMSec(20, 40)", "slept " + std::to_string(slept.count()) + " ms");
  Demo::Show("ToJsonArray<int>({1,2,3})", JsonToString(Container::ToJsonArray<int>({1, 2, 3})));
  Demo::Show("ToString<int>({65,66}, \"-\")", Container::ToString<int>({65, 66}, "-"));
  Demo::Show("RandomSleepInMSec(0, 100)", RandomSleepInMSec(0, 100) ? "true" : "false (refused)");

  Demo::Step("A privileged operation as the current user");
  Demo::Show("effective uid/gid before",
             std::to_string(geteuid()) + "/" + std::to_string(getegid()));
  const bool wasRoot = geteuid() == 0;
  bool raised = false;
  {
    VANTDR_PRIVILEGED_SECTION(section);
    raised = geteuid() == 0;
    Demo::Show("effective uid/gid inside",
               std::to_string(geteuid()) + "/" + std::to_string(getegid()));
  }
  Demo::Show("effective uid/gid after",
             std::to_string(geteuid()) + "/" + std::to_string(getegid()));
  Demo::Show("note", wasRoot  ? "already root: no id change, no log line"
                     : raised ? "raised to root and restored (WARNING lines at priority 39)"
                              : "could not raise: ERROR lines, the operation ran anyway");
}

}  // namespace

VANTDR_DEMO_SECTION(10, "Foundations", Run);
