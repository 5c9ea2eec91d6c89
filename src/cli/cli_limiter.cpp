#include "cli/cli_limiter.h"

#include "helper_link/pelmora.h"

namespace pelmora::cli {

CliLimiter::CliLimiter(bool pid_control, bool process_table)
    : m_settings(std::make_unique<DefaultSettings>(std::filesystem::path())) {
  m_settings->saveBool("save_limited", false);
  m_settings->saveBool("save_reniced", false);
  m_settings->saveBool("PID_use_pidcontroller", pid_control);
  CPULimiter::Options options;
  options.process_table = process_table;
  m_limiter = std::make_unique<CPULimiter>(Pelmora::shared(), SysRoot::current(), *m_settings, options);
}

CliLimiter::~CliLimiter() {
  m_limiter.reset();  // stops its timer and tool, and continues anything it held
}

}  // namespace pelmora::cli
