// Event frames byte for byte: lengths, header, padding and string order.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "zxlb_frame_build.h"

namespace {

template <typename T>
T zeroed() {
  T t;
  std::memset(&t, 0, sizeof t);
  return t;
}

msgHdr_t header(const ZXFrameBuffer &f) {
  msgHdr_t h;
  std::memcpy(&h, f.data() + 1, sizeof h);
  return h;
}

TEST(FrameBuild, SizesHeaderAndPadding) {
  ZXFrameBuffer f;
  auto entry = zeroed<MethodEntryVar_t>();
  const ZXFrameString name = frameString("Cart.load1");
  entry.mid = 7;
  entry.methodName = static_cast<std::int32_t>(name.len);
  ASSERT_TRUE(f.build(ZX_FRAME_METHOD_ENTRY, &entry, sizeof entry,
                      {name, frameString(nullptr), frameString("")}));
  ASSERT_EQ(f.size(), 73);
  const msgHdr_t h = header(f);
  EXPECT_EQ(h.header_len, 12);
  EXPECT_EQ(h.total_len, 73);
  EXPECT_EQ(h.msg_type, ZX_FRAME_METHOD_ENTRY);
  EXPECT_EQ(f.data()[0], '^');
  EXPECT_EQ(f.data()[13], '|');
  EXPECT_EQ(std::string(f.data() + 14 + 48, 10), "Cart.load1");
  EXPECT_EQ(f.data()[72], '\n');
  for (int i = 4; i < 8; ++i) EXPECT_EQ(f.data()[14 + i], 0) << "padding after mid";
  for (int i = 44; i < 48; ++i) EXPECT_EQ(f.data()[14 + i], 0) << "padding at the end";

  auto end = zeroed<transactionEnd_t>();
  ASSERT_TRUE(f.build(ZX_FRAME_TRANSACTION_END, &end, sizeof end, {}));
  EXPECT_EQ(f.size(), 39);
  auto reset = zeroed<transactionReset_t>();
  ASSERT_TRUE(f.build(ZX_FRAME_TRANSACTION_RESET, &reset, sizeof reset, {}));
  EXPECT_EQ(f.size(), 23);
  EXPECT_EQ(frameNumber(-5LL), 0);
}

TEST(FrameBuild, LongStringsGoWholeUpToTheLimitThenAreCut) {
  ZXFrameBuffer f;
  auto exc = zeroed<ExceptionEncodeVar_t>();
  const std::string trace(200000, 't');
  const std::string huge(ZX_FRAME_MAX_STRING + 10, 'h');
  const unsigned long long cutBefore = zxFrameStringsCut.load();
  const ZXFrameString t = frameString(trace.c_str()), h = frameString(huge.c_str());
  EXPECT_EQ(t.len, trace.size());
  EXPECT_EQ(h.len, ZX_FRAME_MAX_STRING);
  EXPECT_EQ(zxFrameStringsCut.load() - cutBefore, 1u);
  ASSERT_TRUE(f.build(ZX_FRAME_EXCEPTION, &exc, sizeof exc, {frameString("C"), h, t}));
  EXPECT_EQ(static_cast<std::size_t>(f.size()), 15 + 48 + 1 + ZX_FRAME_MAX_STRING + trace.size());
  EXPECT_EQ(f.data()[f.size() - 1], '\n');
  EXPECT_EQ(f.data()[14 + 48], 'C');
  EXPECT_EQ(f.data()[f.size() - 2], 't');
}

}  // namespace
