#include "transfer/blocking_queue.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "tests/unit/test_support.h"
#include "transfer/queueitem.h"

namespace orv {
namespace {

using Clock = std::chrono::steady_clock;

// A chunk with a real heap buffer, so that the leak checker sees any that is lost.
queueitem* Chunk(int64_t position) {
  auto* item = new queueitem;
  item->buffer = static_cast<unsigned char*>(malloc(4096));
  item->writePosition = position;
  item->writeLength = 4096;
  return item;
}

class BlockingQueueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    queue_.SetCapacity(2);
    ASSERT_EQ(queue_.Init(), 0);
  }
  BlockingQueue<queueitem> queue_;
};

TEST_F(BlockingQueueTest, PopWaitsForItemsThatComeOutInOrder) {
  std::vector<int64_t> popped;
  std::thread consumer([&] {
    for (int i = 0; i < 2; ++i) {
      queueitem* item = nullptr;
      ASSERT_EQ(queue_.Pop(item), 0);
      popped.push_back(item->writePosition);
      delete item;
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  EXPECT_TRUE(popped.empty());
  ASSERT_EQ(queue_.Push(Chunk(1)), 0);
  ASSERT_EQ(queue_.Push(Chunk(2)), 0);
  consumer.join();
  EXPECT_EQ(popped, (std::vector<int64_t>{1, 2}));
  EXPECT_EQ(queue_.Size(), 0u);
}

// A full queue without consumer refuses an item after a second (it stays the caller's);
// the end marker never waits for room, and Destroy frees what is left.
TEST_F(BlockingQueueTest, AFullQueueRefusesItemsButNotTheEndMarker) {
  ASSERT_EQ(queue_.Push(Chunk(1)), 0);
  ASSERT_EQ(queue_.Push(Chunk(2)), 0);
  queueitem* third = Chunk(3);
  auto start = Clock::now();
  EXPECT_EQ(queue_.Push(third), ETIMEDOUT);
  EXPECT_GE(SecondsSince(start), 0.9);
  EXPECT_LT(SecondsSince(start), 2.5);
  delete third;
  start = Clock::now();
  EXPECT_EQ(queue_.Push(nullptr), 0);
  EXPECT_LT(SecondsSince(start), 0.5);
  EXPECT_EQ(queue_.Size(), 3u);
  EXPECT_EQ(queue_.Destroy(), 0);
  EXPECT_FALSE(queue_.Initialised());
  EXPECT_EQ(queue_.Destroy(), EINVAL);
}

// A producer waiting for room gets in as soon as the consumer takes a chunk, also when an
// end marker (which never waits for room) lies beyond the capacity.
TEST(BlockingQueueWaitTest, AWaitingProducerGetsInAsSoonAsTheConsumerTakesOne) {
  for (int markers : {0, 1}) {
    BlockingQueue<queueitem> queue;
    queue.SetCapacity(2);
    ASSERT_EQ(queue.Init(), 0);
    ASSERT_EQ(queue.Push(Chunk(1)), 0);
    ASSERT_EQ(queue.Push(Chunk(2)), 0);
    ASSERT_TRUE(markers == 0 || queue.Push(nullptr) == 0);
    std::thread consumer([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      for (int i = 0; i <= markers; ++i) {
        queueitem* item = nullptr;
        queue.Pop(item);
        delete item;
      }
    });
    auto start = Clock::now();
    EXPECT_EQ(queue.Push(Chunk(3)), 0) << markers;
    double seconds = SecondsSince(start);
    consumer.join();
    EXPECT_GE(seconds, 0.25) << markers;
    EXPECT_LT(seconds, 0.9) << markers;
    EXPECT_EQ(queue.Size(), 2u) << markers;
  }
}

TEST_F(BlockingQueueTest, AnItemTakenByTryPopKeepsItsPlaceUntilReleased) {
  ASSERT_EQ(queue_.Push(Chunk(1)), 0);
  ASSERT_EQ(queue_.Push(Chunk(2)), 0);
  queueitem* first = nullptr;
  ASSERT_EQ(queue_.Pop(first), 0);
  queueitem* second = nullptr;
  // A refused front stays where it is.
  EXPECT_EQ(queue_.TryPop(second, [](const queueitem*) { return false; }), EAGAIN);
  EXPECT_EQ(queue_.Size(), 1u);
  ASSERT_EQ(queue_.TryPop(second, [](const queueitem* next) { return next->writePosition == 2; }), 0);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->writePosition, 2);
  EXPECT_EQ(queue_.TryPop(second, [](const queueitem*) { return true; }), EAGAIN);  // empty
  // The consumer holds two: the producer has room for one only.
  ASSERT_EQ(queue_.Push(Chunk(3)), 0);
  queueitem* fourth = Chunk(4);
  EXPECT_EQ(queue_.Push(fourth), ETIMEDOUT);
  std::thread consumer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    delete second;
    queue_.Release();
  });
  auto start = Clock::now();
  EXPECT_EQ(queue_.Push(fourth), 0);
  double seconds = SecondsSince(start);
  consumer.join();
  EXPECT_GE(seconds, 0.25);
  EXPECT_LT(seconds, 0.9);
  EXPECT_EQ(queue_.Size(), 2u);
  // Releasing more than was kept gives no room beyond the capacity.
  queue_.Release();
  queueitem* fifth = Chunk(5);
  EXPECT_EQ(queue_.Push(fifth), ETIMEDOUT);
  delete fifth;
  delete first;
}

// The leak checker sees what an uninitialised queue is given, or a destroyed one still held.
TEST(BlockingQueueLifetimeTest, UninitialisedRefusesAndFreesAndDestructionFreesWhatIsQueued) {
  BlockingQueue<queueitem> uninitialised;
  uninitialised.SetCapacity(2);
  EXPECT_EQ(uninitialised.Push(Chunk(1)), EINVAL);
  queueitem* item = nullptr;
  EXPECT_EQ(uninitialised.Pop(item), EINVAL);
  EXPECT_EQ(uninitialised.Destroy(), EINVAL);
  BlockingQueue<queueitem> queue;
  queue.SetCapacity(2);
  ASSERT_EQ(queue.Init(), 0);
  ASSERT_EQ(queue.Push(Chunk(1)), 0);
  ASSERT_EQ(queue.Push(Chunk(2)), 0);
}

TEST(ChunkBufferTest, ChunkBuffersArePageAlignedAndComeBackWarm) {
  const uintptr_t page = static_cast<uintptr_t>(getpagesize());
  unsigned char* first = AllocateChunkBuffer(kChunkBytes);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % page, 0u);
  first[kChunkBytes - 1] = 1;
  ReleaseChunkBuffer(first);
  // The next chunk reuses the released buffer rather than mapping a new one.
  unsigned char* second = AllocateChunkBuffer(kChunkBytes);
  EXPECT_EQ(second, first);
  // A copy's chunks in flight each get a buffer of their own.
  std::vector<unsigned char*> inFlight;
  for (int i = 0; i < 6; ++i) inFlight.push_back(AllocateChunkBuffer(kChunkBytes));
  for (unsigned char* buffer : inFlight) {
    EXPECT_NE(buffer, second);
    ReleaseChunkBuffer(buffer);
  }
  ReleaseChunkBuffer(second);
  // Other sizes and buffers from elsewhere are plain allocations, released with free.
  unsigned char* small = AllocateChunkBuffer(8192);
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(small) % page, 0u);
  ReleaseChunkBuffer(small);
  ReleaseChunkBuffer(static_cast<unsigned char*>(malloc(100)));
  ReleaseChunkBuffer(nullptr);
}

}  // namespace
}  // namespace orv
