#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "zxbt_published.h"

namespace {

struct Value {
  explicit Value(int value, std::atomic<int> *counter = nullptr) : v(value), freed(counter) {}
  ~Value() {
    if (freed) freed->fetch_add(1);
  }
  int v;
  std::atomic<int> *freed;
};

TEST(Published, WriterFreesTheOldValueOnlyAfterItsReadersLeave) {
  zx::Published<Value> cell;
  std::atomic<int> freed{0};
  cell.publish(std::make_unique<Value>(1, &freed));
  std::atomic<bool> published{false};
  std::thread writer;
  {
    zx::Published<Value>::Reader r(cell);
    ASSERT_EQ(r->v, 1);
    writer = std::thread([&] {
      cell.publish(std::make_unique<Value>(2, &freed));
      published = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(published.load()) << "the writer waits while value 1 is read";
    EXPECT_EQ(freed.load(), 0);
    EXPECT_EQ(r->v, 1);
    {
      zx::Published<Value>::Reader nested(cell);
      EXPECT_EQ(nested->v, 2) << "a new reader takes the new value";
    }
    EXPECT_FALSE(published.load()) << "leaving the nested reader keeps the outer one";
  }
  writer.join();
  EXPECT_TRUE(published.load());
  EXPECT_EQ(freed.load(), 1);
  EXPECT_EQ(cell.current_for_writer()->v, 2);
}

TEST(Published, ExitedThreadsGiveTheirSlotBack) {
  zx::HazardSlot *first = nullptr;
  zx::HazardSlot *second = nullptr;
  std::thread([&] { first = zx::hazard_slot_for_thread(); }).join();
  std::thread([&] { second = zx::hazard_slot_for_thread(); }).join();
  EXPECT_EQ(first, second);
  EXPECT_NE(zx::hazard_slot_for_thread(), nullptr);
}

}  // namespace
