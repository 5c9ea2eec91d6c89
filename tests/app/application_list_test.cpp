// Which program a desktop entry starts, for the "Applications" filter.
#include <gtest/gtest.h>

#include "app/application_list.h"

namespace pelmora {
namespace {

TEST(DesktopEntryProgram, Table) {
  struct Case { const char* text; std::optional<std::string> program; };
  const Case cases[] = {
      {"[Desktop Entry]\nType=Application\nExec=/usr/bin/firefox %u\n", "firefox"},
      {"[Desktop Entry]\nExec=gimp-2.10 %U\nType=Application\n", "gimp-2.10"},
      {"[Desktop Entry]\nType=Application\nExec=env GTK_THEME=Adwaita:dark LANG=C gedit %U\n", "gedit"},
      {"[Desktop Entry]\nType=Application\nExec=\"/opt/My App/bin/myapp\" --new\n", "myapp"},
      {"[Desktop Entry]\nType=Application\nExec=sh -c \"foo | bar\"\n", std::nullopt},
      {"[Desktop Entry]\nType=Link\nURL=https://example.org\nExec=xdg-open x\n", std::nullopt},
      {"[Desktop Entry]\nType=Application\nNoDisplay=true\nExec=helper\n", std::nullopt},
      {"[Desktop Entry]\nType=Application\nHidden=true\nExec=helper\n", std::nullopt},
      {"[Desktop Entry]\nType=Application\nName=No command\n", std::nullopt},
      // Only the main group counts; actions have Exec lines of their own.
      {"[Desktop Entry]\nType=Application\nExec=code\n[Desktop Action new]\nExec=other --new\n", "code"},
      {"# comment\n\n[Desktop Entry]\r\nType = Application\r\nExec = vlc --started-from-file %U\r\n", "vlc"},
      {"", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(desktopEntryProgram(c.text), c.program) << c.text;
}

TEST(ApplicationList, ProgramsOfEntriesMarkTheirProcesses) {
  const ApplicationList list(std::set<std::string>{"firefox", "gedit"});
  const auto pids = list.applicationPids({{10, "firefox"}, {11, "bash"}, {12, "gedit"}, {13, "Firefox"}});
  // Owners of windows count too on a live desktop; names match exactly.
  std::set<int32_t> expected = ApplicationList::windowPids();
  expected.insert({10, 12});
  EXPECT_EQ(pids, expected);
}

}  // namespace
}  // namespace pelmora
