#include "cli/cli_limiter.h"

#include <cstdlib>
#include <string>

#include "helper_link/pelmora.h"

namespace pelmora::cli {

CliLimiter::CliLimiter(bool pid_control, bool process_table) {
  std::string pattern = (std::filesystem::temp_directory_path() / "pelmora-cli-XXXXXX").string();
  if (::mkdtemp(pattern.data())) m_dir = pattern;
  m_settings = std::make_unique<DefaultSettings>(m_dir / "defaults.json");
  m_settings->saveBool("save_limited", false);
  m_settings->saveBool("save_reniced", false);
  m_settings->saveBool("PID_use_pidcontroller", pid_control);
  CPULimiter::Options options;
  options.process_table = process_table;
  m_limiter = std::make_unique<CPULimiter>(Pelmora::shared(), SysRoot::current(), *m_settings, options);
}

CliLimiter::~CliLimiter() {
  m_limiter.reset();  // stops its timer and tool, and continues anything it held
  std::error_code ec;
  if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ec);
}

}  // namespace pelmora::cli
