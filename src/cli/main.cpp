// pelmora: the command-line tool. Dispatches to the subcommands listed in commands.cpp.
#include <cstdio>
#include <string>
#include <vector>

#include "cli/commands.h"

using namespace pelmora::cli;

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs(usageText().c_str(), stderr);
    return kExitUsage;
  }
  const std::string name = argv[1];
  if (name == "--help" || name == "-help" || name == "help") {
    std::fputs(usageText().c_str(), stdout);
    return kExitOk;
  }
  // The boot-time flags come without a command name: "pelmora -t on -n 4".
  if (name == "-h" || name == "-p" || name == "-t" || name == "-n")
    return runBootFlagsCommand(std::vector<std::string>(argv + 1, argv + argc));
  for (const auto& command : commands()) {
    if (name == command.name) return command.run(std::vector<std::string>(argv + 2, argv + argc));
  }
  std::fprintf(stderr, "pelmora: unknown command '%s'\n", name.c_str());
  std::fputs(usageText().c_str(), stderr);
  return kExitUsage;
}
