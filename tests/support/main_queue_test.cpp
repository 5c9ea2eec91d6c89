#include "support/main_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <vector>

#include "common/eventually.h"
#include "support/broadcast.h"

using namespace pelmora;

TEST(MainQueue, JobsPostedFromAnotherThreadRunOnTheLoopThreadInOrder) {
  std::vector<int> order;
  std::thread::id ran_on;
  std::thread poster([&] {
    for (int i = 0; i < 3; ++i)
      MainQueue::post([&, i] {
        order.push_back(i);
        ran_on = std::this_thread::get_id();
      });
  });
  poster.join();
  EXPECT_EQ(RunLoop::main().runUntilIdle(), 3);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(ran_on, std::this_thread::get_id());
}

TEST(MainQueue, InstalledPosterReceivesJobs) {
  std::vector<MainQueue::Job> captured;
  MainQueue::install([&](MainQueue::Job job) { captured.push_back(std::move(job)); });
  int ran = 0;
  MainQueue::post([&] { ++ran; });
  MainQueue::install(nullptr);
  ASSERT_EQ(captured.size(), 1u);
  EXPECT_EQ(RunLoop::main().runUntilIdle(), 0);
  captured[0]();
  EXPECT_EQ(ran, 1);
}

TEST(Broadcast, AsyncDeliveryWaitsForTheLoopAndListenersLeaveByKey) {
  int a = 0, b = 0;
  AddListener("pelmora.test", "A", [&](const std::string&) { ++a; });
  AddListener("pelmora.test", "B", [&](const std::string&) { ++b; });
  AddListener("pelmora.test", "B", [&](const std::string&) { b += 10; });  // replaces
  Broadcast("pelmora.test");
  EXPECT_EQ(a, 0);
  RunLoop::main().runUntilIdle();
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, 10);
  RemoveListener("pelmora.test", "A");
  Broadcast("pelmora.test", /*async=*/false);
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b, 20);
  RemoveListener("pelmora.test", "B");
  Broadcast("pelmora.other", false);
}

// run() on a thread of its own, waiting for jobs, ended by quit() from this one. A run() that quit
// fails to wake would hang the whole test program: past the deadline the failure is reported and
// the program ends, since the stuck thread can be neither joined nor left using a destroyed loop.
TEST(RunLoop, QuitFromAnotherThreadEndsRun) {
  RunLoop loop;
  std::atomic<int> ran{0};
  auto running = std::async(std::launch::async, [&] { loop.run(); });
  loop.post([&] { ++ran; });
  EXPECT_TRUE(test::eventually([&] { return ran == 1; }));  // run() now waits for the next job
  loop.quit();
  if (running.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    std::fprintf(stderr, "RunLoop.QuitFromAnotherThreadEndsRun: run() still running 30 s after quit()\n");
    std::_Exit(1);
  }
  EXPECT_EQ(ran.load(), 1);
}
