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
  for (int number = 0; number < 6; ++number) {
    const bool isPatient = number != 2;
    threads.emplace_back([&, number, isPatient] {
      const auto place = semaphore.acquire(isPatient ? 1h : 1ms);
      EXPECT_EQ(place != nullptr, isPatient);
      if (place) served.push_back(number);
    });
    while (isPatient && semaphore.waiting() < threads.size() - (number > 2 ? 1 : 0))
      std::this_thread::yield();
    if (!isPatient) threads.back().join();
  }
  threads.erase(threads.begin() + 2);
  first.reset();
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(served, ::testing::ElementsAre(0, 1, 3, 4, 5));
  EXPECT_TRUE(semaphore.acquire(0ms)) << "the place came back";
}

}  // namespace
}  // namespace quenzel::platform
