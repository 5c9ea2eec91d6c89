#include "cli/commands.h"

namespace pelmora::cli {

const std::vector<Command>& commands() {
  static const std::vector<Command> table = {
      {"sample", "[--count N] [--json]",
       "print one system sample a second (N samples, or until interrupted); --json prints whole samples",
       runSampleCommand},
      {"top", "[--json]", "print the process table once, with rates over one second", runTopCommand},
      {"limit", "[--tree] PID PERCENT [--pid-control]",
       "hold a process (with --tree, it and all its descendants, present and future, together) to\n"
       "      PERCENT of one processor until interrupted, printing the share it gets",
       runLimitCommand},
  };
  return table;
}

std::string usageText() {
  std::string text = "usage:\n";
  text += "  pelmora [-h on|off] [-p] [-t on|off] [-n N]\n"
          "      apply processor settings through the helper: hyper-threads, prefer physical cores,\n"
          "      I/O throttling, number of enabled processors (what the boot service runs)\n";
  for (const auto& command : commands())
    text += std::string("  pelmora ") + command.name + " " + command.usage + "\n      " + command.summary + "\n";
  text += "  pelmora --help\n";
  return text;
}

}  // namespace pelmora::cli
