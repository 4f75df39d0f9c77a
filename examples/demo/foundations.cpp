// Foundations: error names, utilities, random pauses, the privileged section.
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
  for (int code : {401, 404, 405, 522, 450}) {
    rows.push_back({std::to_string(code), ERR::ToString(code)});
  }
  Demo::Table({"code", "name"}, rows);
  Demo::Note("450 is no library code; \"AVALIABLE\" is the name's established spelling");

  Demo::Step("Utilities");
  Demo::Show("GenerateUUID()", GenerateUUID());
  Demo::Show("IsVolPath(\"/volume1/share\")",
             Validator::IsVolPath("/volume1/share") ? "true" : "false");
  auto start = std::chrono::steady_clock::now();
  RandomSleepInMSec(20, 40);
  auto slept = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  Demo::Show("RandomSleepInMSec(20, 40)", "slept " + std::to_string(slept.count()) + " ms");
  Demo::Show("ToJsonArray<int>({1,2,3})", JsonToString(Container::ToJsonArray<int>({1, 2, 3})));
  Demo::Show("ToString<int>({65,66}, \"-\")", Container::ToString<int>({65, 66}, "-"));
  Demo::Note("a number joins as the one character of its code (65 is \"A\"), not as digits");
  Demo::Show("RandomSleepInMSec(0, 100)", RandomSleepInMSec(0, 100) ? "true" : "false (refused)");
  Demo::Note("a bound of 0 is refused, not read as \"no pause\": callers always pause");

  Demo::Step("A privileged operation as the current user");
  auto ids = [] { return std::to_string(geteuid()) + "/" + std::to_string(getegid()); };
  const std::string before = ids();
  const bool wasRoot = geteuid() == 0;
  bool raised = false;
  std::string inside;
  {
    VANTDR_PRIVILEGED_SECTION(section);
    raised = geteuid() == 0;
    inside = ids();
  }
  Demo::Show("euid/egid before, inside, after", before + ", " + inside + ", " + ids());
  Demo::Note(wasRoot  ? "already root: no id change, no log line"
             : raised ? "raised to root and restored (WARNING lines at priority 39)"
                      : "could not raise: ERROR lines, the operation ran anyway");
}

}  // namespace

VANTDR_DEMO_SECTION(10, "Foundations", Run);
