// The method table: ids and record 5 (checked at the reference collector; the
// opening method's id 1 in flowpath_generator_test's records),
// profile files and their grammar, the swap under a flowpath in flight, and
// both clean-ups of retired nodes, which never free a referenced one.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ZXFeatureKeywords.h"
#include "ZXMethodManager.h"
#include "ZXRunTimeChangeHandle.h"
#include "reference_collector.h"
#include "test_support.h"

namespace {

using namespace std::chrono_literals;
using zxref::ConnKind;
using zxtest::ScopedApp;
using zxtest::ScopedEnv;
using zxtest::TempDir;

class MethodTableTest : public ::testing::Test {
 protected:
  MethodTableTest() : app_(home_.str()) { app_->methodIDGlobal = 1; }
  ZXProxyInstance_t &app() { return *app_; }
  node_t *inForce() { return app().methodHashMapNode.get(); }
  methodPropProperties *byName(const char *name) {
    return getMethodPropFromMethodName(tlzxApplication, name, inForce());
  }

  TempDir home_;
  ScopedApp app_;
};

TEST_F(MethodTableTest, ProfileGrammar) {
  const char *profile =
      "# comment\n"
      "\n"
      "shop.Cart.place(int qty, String sku)void|1|0|shop|-\n"
      "  shop.Cart.view  \r\n"
      "py.handler(request; *args)|0x9\n"
      "http.backend|8|1|-|payments\n"
      "bad(unclosed|1\n"
      "|1\n";
  ASSERT_EQ(setMethodHashMapNode(&app(), profile), 0);
  EXPECT_EQ(inForce()->type, 1);
  methodPropProperties *place = byName("shop.Cart.place");
  ASSERT_NE(place, nullptr);
  EXPECT_EQ(place->isEntryPoint, 1);
  EXPECT_STREQ(place->moduleName.c_str(), "shop");
  EXPECT_FALSE(place->aliasMethodName.is_set()) << "'-' is an absent field";
  EXPECT_STREQ(place->methodRetType.c_str(), "void");
  ASSERT_EQ(place->methodArgsListCount, 2u);
  EXPECT_STREQ(place->methodArgList[0].type.c_str(), "int");
  EXPECT_STREQ(place->methodArgList[0].argName.c_str(), "qty");
  EXPECT_STREQ(place->methodArgList[1].argName.c_str(), "sku");
  ASSERT_NE(byName("shop.Cart.view"), nullptr);
  methodPropProperties *handler = byName("py.handler");
  ASSERT_NE(handler, nullptr);
  EXPECT_EQ(handler->isEntryPoint, 9);
  ASSERT_EQ(handler->methodArgsListCount, 2u);
  EXPECT_STREQ(handler->methodArgList[1].argName.c_str(), "*args");
  EXPECT_STREQ(handler->methodRetType.c_str(), "");
  methodPropProperties *backend = byName("http.backend");
  ASSERT_NE(backend, nullptr);
  EXPECT_EQ(backend->type, 1);
  EXPECT_STREQ(backend->aliasMethodName.c_str(), "payments");
  EXPECT_EQ(byName("bad"), nullptr);
  EXPECT_EQ(search_hashmap("shop.Cart.view", inForce()->ptr), byName("shop.Cart.view"))
      << "profile methods are in both maps";
  EXPECT_EQ(app().methodIDGlobal, 6) << "four profile methods and the opening method";
}

TEST_F(MethodTableTest, SwapLeavesTheFlowpathInFlightOnItsNode) {
  ASSERT_EQ(setMethodHashMapNode(&app(), "app.A|1\napp.B|0\n"), 0);
  node_t *before = acquireMethodHashMapNode(&app());  // a flowpath starts
  methodPropProperties *bOld = byName("app.B");
  ASSERT_NE(bOld, nullptr);
  const int bId = bOld->methodId;

  ASSERT_EQ(setMethodHashMapNode(&app(), "app.B|1|0|mod\napp.C|0\n"), 0);
  ASSERT_NE(inForce(), before);
  EXPECT_EQ(retiredNodeCount(&app()), 1);
  // The flowpath still resolves through the node it started with.
  EXPECT_EQ(getMethodPropFromMethodName(tlzxApplication, "app.B", before), bOld);
  EXPECT_EQ(bOld->isEntryPoint, 0);
  EXPECT_EQ(getMethodPropFromMethodName(tlzxApplication, "app.C", before), nullptr);
  EXPECT_EQ(getMethodPropFromMethodId(bId, before), bOld);
  // The new node has the profile's view, under the same id.
  methodPropProperties *bNew = byName("app.B");
  ASSERT_NE(bNew, nullptr);
  EXPECT_EQ(bNew->methodId, bId);
  EXPECT_EQ(bNew->isEntryPoint, 1);
  EXPECT_NE(byName("app.C"), nullptr);
  EXPECT_NE(byName("app.A"), nullptr) << "methods of the old profile stay named";

  checkAndDeleteNode(&app());
  EXPECT_EQ(retiredNodeCount(&app()), 1) << "held by the flowpath in flight";
  EXPECT_EQ(getMethodPropFromMethodName(tlzxApplication, "app.A", before)->methodId,
            byName("app.A")->methodId);
  releaseMethodHashMapNode(before);  // the flowpath ends
  checkAndDeleteNode(&app());
  EXPECT_EQ(retiredNodeCount(&app()), 0);
  EXPECT_NE(byName("app.A"), nullptr) << "shared records outlive the retired node";
}

TEST_F(MethodTableTest, AgeBasedClearNeverFreesAReferencedNode) {
  app().ZXSys.hashMapClearTime = 30;
  ASSERT_EQ(setMethodHashMapNode(&app(), "x|0\n"), 0);
  node_t *held = acquireMethodHashMapNode(&app());
  ASSERT_EQ(setMethodHashMapNode(&app(), "y|0\n"), 0);
  ASSERT_EQ(setMethodHashMapNode(&app(), "z|0\n"), 0);
  EXPECT_EQ(retiredNodeCount(&app()), 2);
  checkAndClearHashMapNode(&app(), 0);
  EXPECT_EQ(retiredNodeCount(&app()), 2) << "younger than hashMapClearTime";
  for (node_t *n = app().methodNodeRetirement.head; n; n = n->next) n->timeStamp -= 31 * 60000LL;
  checkAndClearHashMapNode(&app(), 0);
  EXPECT_EQ(retiredNodeCount(&app()), 1) << "old enough and unused: freed";
  checkAndClearHashMapNode(&app(), 1);
  ASSERT_EQ(retiredNodeCount(&app()), 1) << "old enough but referenced: kept, even forced";
  EXPECT_EQ(app().methodNodeRetirement.head, held);
  EXPECT_EQ(getMethodPropFromMethodName(tlzxApplication, "x", held)->methodId, 1);

  releaseMethodHashMapNode(held);
  checkAndClearHashMapNode(&app(), 1);
  EXPECT_EQ(retiredNodeCount(&app()), 0) << "a later pass frees it";
  EXPECT_EQ(app().methodNodeRetirement.tail, nullptr);
  checkAndClearHashMapNode(&app(), 1);  // empty list
}

TEST_F(MethodTableTest, ProfileEntryPointAndSavedFiles) {
  EXPECT_EQ(readingFileInstrProfile(tlzxApplication), 1) << "absent";
  EXPECT_EQ(readingEntryPointfile(tlzxApplication), 1);
  // A file beyond the read limit loses the line that the limit cuts.
  std::string text = "first.method|1\n";
  while (text.size() < ZX_INSTR_FILE_READ_MAX - 10)
    text += "m" + std::to_string(text.size()) + "|0\n";
  const std::string cut = "cut.by.the.limit.somewhere.in.this.name|0\n";
  text += cut;
  home_.write("instrProfile.txt", text);
  ASSERT_EQ(readingFileInstrProfile(tlzxApplication), 0);
  EXPECT_NE(byName("first.method"), nullptr);
  for (size_t len = 1; len < cut.size() - 3; ++len)
    EXPECT_EQ(byName(cut.substr(0, len).c_str()), nullptr) << len;

  home_.write("entryPointFile.txt", "first.method|8\nnew.entry\n");
  ASSERT_EQ(readingEntryPointfile(tlzxApplication), 0);
  EXPECT_EQ(byName("first.method")->isEntryPoint, 9) << "entry-point bits are added";
  ASSERT_NE(byName("new.entry"), nullptr);
  EXPECT_EQ(byName("new.entry")->isEntryPoint, 1);

  // The announced profile is fetched unless the saved copy has its size.
  parseInstrProfile(*tlzxApplication, const_cast<char *>("orders.prof"),
                    const_cast<char *>("instrProfile"), 56);
  parseInstrProfile(*tlzxApplication, const_cast<char *>("1700000000"), const_cast<char *>("lmd"),
                    57);
  parseInstrProfile(*tlzxApplication, const_cast<char *>("10"), const_cast<char *>("size"), 58);
  EXPECT_STREQ(app().instrProfileInfo.name.c_str(), "orders.prof");
  EXPECT_STREQ(app().instrProfileInfo.lmd.c_str(), "1700000000");
  EXPECT_EQ(app().instrProfileInfo.size, 10);
  EXPECT_TRUE(instrProfileNeedsFetch(&app())) << "the local copy is not the announced one";

  app().ZXBCISetting.fileBasedKeywordMode = 1;
  app().InstrFileData_flag = 1;
  ASSERT_EQ(setMethodHashMapNode(&app(), "a.b|1\nc|0\n"), 0);
  EXPECT_EQ(zxtest::read_file(home_.path() / "instrProfile.txt"), "a.b|1\nc|0");
  EXPECT_FALSE(instrProfileNeedsFetch(&app())) << "the saved copy has the announced size";
  app().instrProfileInfo.size = 99;
  EXPECT_TRUE(instrProfileNeedsFetch(&app()));
}

TEST_F(MethodTableTest, LookupsAndSwapsFromManyThreads) {
  ASSERT_EQ(setMethodHashMapNode(&app(), "t.base|1\n"), 0);
  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int t = 0; t < 3; ++t)
    workers.emplace_back([&, t] {
      int i = 0;
      while (!stop.load()) {
        node_t *node = acquireMethodHashMapNode(&app());
        ASSERT_NE(node, nullptr);
        std::string name = "t" + std::to_string(t) + "." + std::to_string(i++ % 50);
        getMethodHashMapLock(tlzxApplication);
        methodPropProperties *r = search_hashmap(name.c_str(), node->dynamic_ptr);
        if (!r) r = updateMethodHashMap(tlzxApplication, name.c_str(), 0, 0, node);
        releaseMethodHashMapLock(tlzxApplication);
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(getMethodPropFromMethodId(r->methodId, node), r);
        releaseMethodHashMapNode(node);
      }
    });
  for (int swap = 0; swap < 50; ++swap) {
    ASSERT_EQ(setMethodHashMapNode(&app(), "t.base|1\n"), 0);
    checkAndDeleteNode(&app());
  }
  stop = true;
  for (auto &w : workers) w.join();
  checkAndDeleteNode(&app());
  EXPECT_EQ(retiredNodeCount(&app()), 0);
}

// Record 5 as the collector receives it.
class MetaRecordTest : public ::testing::Test, protected zxtest::LinkedAgent {};

TEST_F(MetaRecordTest, RecordFiveOnlyWhileTheDataThreadRuns) {
  zxref::Config config;
  zxref::ReferenceCollector c(config);
  ASSERT_TRUE(c.start()) << c.error();
  ZXProxyInstance_t &a = configure(c.port());
  run_loop();

  node_t *node = acquireMethodHashMapNode(&a);  // before the run: ids 1, 2 unannounced
  getMethodHashMapLock(tlzxApplication);
  ASSERT_NE(updateMethodHashMap(tlzxApplication, "before.run", 0, 0, node), nullptr);
  releaseMethodHashMapLock(tlzxApplication);

  ASSERT_TRUE(c.wait_for_connections(ConnKind::Control, 1, 10s));
  ASSERT_TRUE(c.send_start("status=running"));
  ASSERT_TRUE(c.wait_for_record(99, 10s));

  getMethodHashMapLock(tlzxApplication);
  methodPropProperties *r = updateMethodHashMap(tlzxApplication, "shop.Cart.add", 1, 0, node);
  releaseMethodHashMapLock(tlzxApplication);
  ASSERT_NE(r, nullptr);
  r->methodRetType.assign("int");
  r->methodArgList = std::make_unique<methodArgList_t[]>(2);
  r->methodArgList[0].argName.assign("qty");
  r->methodArgList[1].argName.assign("sku");
  r->methodArgsListCount = 2;
  dumpMetadataForSig(tlzxApplication, r);
  ASSERT_EQ(setMethodHashMapNode(&a, "prof.m(String s)bool|1\n"), 0);
  releaseMethodHashMapNode(node);

  auto line = [&](const std::string &text) {
    return c.wait_for_line(
        ConnKind::Data, [&](std::string_view l) { return l == text; }, 10s);
  };
  EXPECT_TRUE(line("5,shop.Cart.add,3"));
  EXPECT_TRUE(line("5,shop.Cart.add(qty;sku;)int,3"));
  EXPECT_TRUE(line("5,prof.m(s;)bool,4"));
  std::vector<std::string> fives;
  for (const auto &l : c.lines(ConnKind::Data))
    if (l.text.rfind("5,", 0) == 0) fives.push_back(l.text);
  EXPECT_EQ(fives, (std::vector<std::string>{"5,shop.Cart.add,3", "5,shop.Cart.add(qty;sku;)int,3",
                                             "5,prof.m(s;)bool,4"}))
      << "ids given out before the run are never announced";
}

}  // namespace
