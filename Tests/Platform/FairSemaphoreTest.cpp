#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/FairSemaphore.hpp"

namespace quenzel::platform {
namespace {

using namespace std::chrono_literals;

TEST(FairSemaphore, ServesInTheOrderOfComing) {
  FairSemaphore semaphore(2);
  auto first = semaphore.acquire(0ms);
  auto second = semaphore.acquire(0ms);
  ASSERT_TRUE(first && second);
  EXPECT_FALSE(semaphore.acquire(0ms));
  std::vector<int> served;  // by one thread at a time: only one place is given back
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    EXPECT_FALSE(semaphore.acquire(1ms)) << "a wait that ends leaves the queue";
    threads.emplace_back([&, number] {
      const auto place = semaphore.acquire(1h);
      served.push_back(number);
    });
    while (semaphore.waiting() < threads.size()) std::this_thread::yield();
  }
  first.reset();
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(served, ::testing::ElementsAre(0, 1, 2, 3));
  EXPECT_TRUE(semaphore.acquire(0ms)) << "the place came back";
}

}  // namespace
}  // namespace quenzel::platform
