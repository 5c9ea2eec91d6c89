// One instance per user, and no other user can keep a user's application from starting.
#include "app/instance_lock.h"
#include "common/child.h"
#include "common/eventually.h"
#include "common/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>

namespace pelmora {
namespace {

using Outcome = InstanceLock::Outcome;

// A process of uid 65534 that holds the abstract name a user's instance used to rely on alone,
// "net.tandrel.pelmora-<uid>" of the user it targets.
test::Child nameSquatter(const std::string& name) {
  return test::Child([name] {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(1);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0 || ::listen(fd, 4) != 0) ::_exit(2);
    for (;;) ::pause();
  });
}

// Whether the kernel lists a socket bound to the abstract name.
bool abstractNameHeld(const std::string& name) {
  std::ifstream in("/proc/net/unix");
  const std::string sockets(std::istreambuf_iterator<char>(in), {});
  return sockets.find(" @" + name + "\n") != std::string::npos;
}

TEST(InstanceLock, AnotherUserHoldingTheOldNameDoesNotBlockTheStart) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to hold the name as another user";
  test::TempDir runtime;  // made 0700 by mkdtemp
  test::TempDir open_folder;
  std::filesystem::permissions(open_folder.path(), std::filesystem::perms(0755));
  const std::string name = "net.tandrel.pelmora-" + std::to_string(::getuid());
  const test::Child squatter = nameSquatter(name);
  // Asleep after its bind (a failed one ends it), and the kernel lists the name.
  ASSERT_TRUE(test::eventually([&] { return test::procState(squatter.pid()) == 'S' && abstractNameHeld(name); }));
  const struct {
    const char* name;
    std::string runtime_dir;
    Outcome want;
  } cases[] = {
      {"private runtime folder", runtime.path().string(), Outcome::kFirst},
      {"no runtime folder", "", Outcome::kUnchecked},
      {"a runtime folder others may enter", open_folder.path().string(), Outcome::kUnchecked},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(InstanceLock::claim(c.runtime_dir).outcome(), c.want);
  }
}

TEST(InstanceLock, ASecondStartAsksTheFirstToShowItself) {
  test::TempDir runtime;
  for (const std::string& dir : {runtime.path().string(), std::string()}) {
    SCOPED_TRACE(dir.empty() ? "abstract name" : "runtime folder");
    {
      InstanceLock first = InstanceLock::claim(dir);
      ASSERT_EQ(first.outcome(), Outcome::kFirst);
      EXPECT_EQ(InstanceLock::claim(dir).outcome(), Outcome::kOtherRunning);
      const int asked = ::accept4(first.listenFd(), nullptr, nullptr, SOCK_CLOEXEC);
      EXPECT_GE(asked, 0);
      if (asked >= 0) ::close(asked);
    }
    // The first instance is gone (crashed or quit): its leftovers do not block the next start.
    InstanceLock next = InstanceLock::claim(dir);
    EXPECT_EQ(next.outcome(), Outcome::kFirst);
    EXPECT_GE(next.listenFd(), 0);
  }
}

}  // namespace
}  // namespace pelmora
