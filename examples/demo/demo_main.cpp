// Walks through the library's families, one section each, in a private
// temporary directory that is removed afterwards.
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>

#include "demo.h"
#include "vantdr/log.h"
#include "vantdr/version.h"

namespace Demo {
namespace {

struct Section {
  int order;
  const char* title;
  void (*run)(const std::string&);
};

std::vector<Section>& Sections() {
  static std::vector<Section> sections;
  return sections;
}

// Library log lines are shown inline, dimmed by an arrow, so a reader sees
// what the library reports while it works.
void PrintLogLine(int, const char* line) { printf("      log> %s\n", line); }

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

}  // namespace

bool RegisterSection(int order, const char* title, void (*run)(const std::string&)) {
  Sections().push_back({order, title, run});
  return true;
}

// The first step of a section follows its heading without a blank line.
bool firstStep = true;

void Step(const std::string& text) {
  printf("%s  - %s\n", firstStep ? "" : "\n", text.c_str());
  firstStep = false;
}

void Note(const std::string& text) { printf("    note: %s\n", text.c_str()); }

void Show(const std::string& label, const std::string& value) {
  std::string dots(label.size() < 28 ? 28 - label.size() : 1, '.');
  printf("    %s %s %s\n", label.c_str(), dots.c_str(), value.c_str());
}

void Table(const std::vector<std::string>& header,
           const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> width(header.size());
  for (size_t c = 0; c < header.size(); ++c) width[c] = header[c].size();
  for (const auto& row : rows) {
    for (size_t c = 0; c < row.size() && c < width.size(); ++c) {
      width[c] = std::max(width[c], row[c].size());
    }
  }
  auto print = [&](const std::vector<std::string>& cells) {
    printf("   ");
    for (size_t c = 0; c < width.size(); ++c) {
      const std::string cell = c < cells.size() ? cells[c] : "";
      printf(" %-*s", static_cast<int>(width[c]), cell.c_str());
    }
    printf("\n");
  };
  print(header);
  std::vector<std::string> rule;
  for (size_t w : width) rule.push_back(std::string(w, '-'));
  print(rule);
  for (const auto& row : rows) print(row);
}

}  // namespace Demo

int main(int argc, char** argv) {
  const bool verbose = argc > 1 && strcmp(argv[1], "--verbose") == 0;
  char pattern[] = "/tmp/vantdr_demo.XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  const std::string workDir = pattern;
  VantDRCore::SetLogSink(Demo::PrintLogLine);
  // INFO lines (one per SQL statement) drown the story; DEBUG lines always.
  setlogmask(LOG_UPTO(verbose ? LOG_INFO : LOG_NOTICE));

  auto sections = Demo::Sections();
  std::sort(sections.begin(), sections.end(),
            [](const Demo::Section& a, const Demo::Section& b) { return a.order < b.order; });
  printf("VantDR Core %s demo, working in %s\n", VantDRCore::GetLibraryVersion(), workDir.c_str());
  printf("Lines marked \"log>\" are the library's own log lines (%s).\n",
         verbose ? "INFO and above" : "NOTICE and above; --verbose adds INFO");
  for (const auto& section : sections) {
    printf("\n== %s ==\n", section.title);
    Demo::firstStep = true;
    section.run(workDir);
  }
  nftw(workDir.c_str(), Demo::RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
  printf("\nDone; %s removed.\n", workDir.c_str());
  return 0;
}
