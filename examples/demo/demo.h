// The demo's sections and its plain-text output helpers.
#pragma once

#include <string>
#include <vector>

namespace Demo {

// Sections run in ascending order; each lives in its own file and
// registers itself with VANTDR_DEMO_SECTION.
bool RegisterSection(int order, const char* title, void (*run)(const std::string& workDir));

// A heading line for a step inside a section.
void Step(const std::string& text);
// A short explanation of something the reader might find odd.
void Note(const std::string& text);
// "  label ........ value"
void Show(const std::string& label, const std::string& value);
// An aligned table with a header row and a rule under it.
void Table(const std::vector<std::string>& header,
           const std::vector<std::vector<std::string>>& rows);

}  // namespace Demo

#define VANTDR_DEMO_SECTION(order, title, fn) \
  static const bool demo_section_registered_##fn = ::Demo::RegisterSection(order, title, fn)
