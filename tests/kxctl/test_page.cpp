// The page "The bus from a shell": each command of it does what the page shows, but for the figures.
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <regex>

#include "kxctl_run.h"

namespace {

struct sample {
  std::string command;
  std::string output;
};

// What stands in blocks of a console, each command behind "$ ".
std::vector<sample> samples_of(const std::string& path) {
  std::vector<sample> all;
  std::ifstream page(path);
  bool is_inside = false;
  for (std::string line; std::getline(page, line);) {
    if (line.rfind("```", 0) == 0) {
      is_inside = line == "```console";
    } else if (is_inside && line.rfind("$ ", 0) == 0) {
      all.push_back({line.substr(2), ""});
    } else if (is_inside) {
      all.back().output += line + "\n";
    }
  }
  return all;
}

std::string output_of(const std::string& command) {
  std::string text;
  std::array<char, 4096> part{};
  FILE* const pipe = popen(("exec 2>&1; " + command).c_str(), "r");
  for (std::size_t size; (size = fread(part.data(), 1, part.size(), pipe)) > 0;)
    text.append(part.data(), size);
  pclose(pipe);
  return text;
}

// Figures differ from time to time, and with them the width of columns.
std::string without_figures(const std::string& text) {
  std::string plain = std::regex_replace(text, std::regex("[0-9][0-9.,:-]*( [mun]?s\\b)?"), "0");
  plain = std::regex_replace(plain, std::regex("[ ]+"), " ");
  return std::regex_replace(plain, std::regex("\n+"), "\n");
}

class shell_page : public bus_with_core {};

}  // namespace

TEST_F(shell_page, shows_what_its_commands_do) {
  if (std::string(KXCTL_COMMAND).find('|') != std::string::npos) GTEST_SKIP() << "the shell runs no emulator";
  char folder[] = "/tmp/kxctl-page-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(folder));
  setenv("PATH", (std::string(PROGRAMS) + ":" + getenv("PATH")).c_str(), 1);
  child_process sysmon({PROGRAMS "/sysmon"});
  EXPECT_EQ("", output_of("kxctl wait sysmon.load"));
  child_process watch([] {  // with an input that says nothing, and does not end
    int ends[2];
    if (pipe(ends) == 0 && dup2(ends[0], STDIN_FILENO) == 0)
      execl(PROGRAMS "/sysmon-watch", "sysmon-watch", nullptr);
    _exit(1);
  });
  EXPECT_EQ("", output_of("kxctl wait --component sysmon-watch; kxctl listen sysmon.load -n 1 >/dev/null"));
  const std::vector<sample> samples = samples_of(SHELL_PAGE);
  EXPECT_LT(10u, samples.size());
  for (const sample& each : samples)
    EXPECT_EQ(without_figures(each.output),
              without_figures(output_of("cd " + std::string(folder) + "; " + each.command)))
        << each.command;
  EXPECT_EQ("", output_of("rm -r " + std::string(folder)));
}
