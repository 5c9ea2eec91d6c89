#pragma once
// The subcommands of the `pelmora` tool. Each lives in a file of its own (sample_command.cpp, ...)
// and is listed once in the table in commands.cpp; main.cpp only dispatches.
#include <string>
#include <vector>

namespace pelmora::cli {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;  // misuse: the usage text went to stderr

struct Command {
  const char* name;
  const char* usage;  // the arguments after the name, e.g. "[--count N] [--json]"
  const char* summary;
  // Arguments after the command name. Returns the exit status.
  int (*run)(const std::vector<std::string>& args);
};

const std::vector<Command>& commands();
// The usage of every command, for --help and for misuse (to stderr).
std::string usageText();

// Declared here, defined in each command's own file.
int runSampleCommand(const std::vector<std::string>& args);
// The boot-time flags "-h on|off -p -t on|off -n N" (all of argv after the program name).
int runBootFlagsCommand(const std::vector<std::string>& args);
int runTopCommand(const std::vector<std::string>& args);
int runLimitCommand(const std::vector<std::string>& args);

}  // namespace pelmora::cli
