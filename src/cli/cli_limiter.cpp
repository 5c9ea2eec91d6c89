#include "cli/cli_limiter.h"

#include "helper_link/pelmora.h"
#include "support/settings_keys.h"

namespace pelmora::cli {

CliLimiter::CliLimiter(bool pid_control, bool process_table)
    : m_settings(std::make_unique<DefaultSettings>(std::filesystem::path())) {
  keys::kSaveLimited.save(*m_settings, false);
  keys::kSaveReniced.save(*m_settings, false);
  keys::kUsePIDController.save(*m_settings, pid_control);
  CPULimiter::Options options;
  options.process_table = process_table;
  m_limiter = std::make_unique<CPULimiter>(Pelmora::shared(), SysRoot::current(), *m_settings, options);
}

CliLimiter::~CliLimiter() {
  m_limiter.reset();  // stops its timer and tool, and continues anything it held
}

}  // namespace pelmora::cli
