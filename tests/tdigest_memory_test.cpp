// A digest's block is sized for 60,010 nodes but must only become resident
// where nodes were written: 256 live BTs cannot each pay ~960 KB. mincore()
// reports which pages of a block are backed, independent of whatever else the
// process holds.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "tdigest/tdigest.h"

namespace {

const std::size_t kPage = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));

std::size_t resident_pages(const td_histogram_t *h) {
  const auto begin = reinterpret_cast<std::uintptr_t>(h) & ~(kPage - 1);
  const auto end = reinterpret_cast<std::uintptr_t>(h->nodes() + h->cap);
  std::vector<unsigned char> in_core((end - begin + kPage - 1) / kPage);
  if (mincore(reinterpret_cast<void *>(begin), end - begin, in_core.data()) != 0) return SIZE_MAX;
  std::size_t n = 0;
  for (unsigned char page : in_core) n += page & 1;
  return n;
}

// Pages a digest may touch for `nodes` nodes: those they span, the header's,
// and one for the allocator's own bookkeeping in sanitised builds.
std::size_t allowance(int nodes) {
  return (static_cast<std::size_t>(nodes) * sizeof(td_node_t) + kPage - 1) / kPage + 3;
}

TEST(TDigestMemory, OnlyWrittenPagesBecomeResident) {
  std::mt19937_64 rng(1);
  std::lognormal_distribution<double> response_ms(5, 1);
  std::vector<td_histogram_ptr> digests;
  for (int d = 0; d < 256; ++d) {
    digests.emplace_back(td_new(0.01, 100));
    ASSERT_TRUE(digests.back());
    ASSERT_LE(resident_pages(digests.back().get()), allowance(0)) << "creation touched the block";
    // One point per thread per interval over a report period.
    for (int i = 0; i < 240; ++i) td_add(digests.back().get(), response_ms(rng), 1);
  }
  std::size_t total = 0;
  for (const auto &h : digests) {
    td_centroid_count(h.get());
    const std::size_t pages = resident_pages(h.get());
    EXPECT_LE(pages, allowance(240));
    total += pages;
  }
  EXPECT_LT(total * kPage, 256u * 64 * 1024);  // against ~245 MB if blocks were cleared
}

TEST(TDigestMemory, MergeBeforeAReadAndResetReturnPages) {
  td_histogram_ptr h(td_new(0.01, 100));
  std::mt19937_64 rng(2);
  std::uniform_real_distribution<double> uniform(0, 1000);
  for (int i = 0; i < h->cap; ++i) td_add(h.get(), uniform(rng), 1);
  EXPECT_GT(resident_pages(h.get()), allowance(h->cap) - 4);
  // Only a block of its own can give pages back; sanitised builds allocate.
  const int centroids = td_centroid_count(h.get());
  if (h->mapped) {
    EXPECT_LE(resident_pages(h.get()), allowance(centroids));
  }
  // A read indexes the centroids behind them, 8 bytes each; a reset hands
  // those pages back too.
  td_value_at(h.get(), 0.5);
  if (h->mapped) {
    EXPECT_LE(resident_pages(h.get()), allowance(centroids + (centroids + 1) / 2));
  }
  td_reset(h.get());
  EXPECT_EQ(td_total_count(h.get()), 0);
  if (h->mapped) {
    EXPECT_LE(resident_pages(h.get()), allowance(0));
  }
  td_add(h.get(), 5, 1);
  td_add(h.get(), 7, 1);
  td_add(h.get(), 9, 1);
  EXPECT_DOUBLE_EQ(td_value_at(h.get(), 0.5), 7);
}

}  // namespace
