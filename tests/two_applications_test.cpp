// Two application objects in one process, as the proxy will hold them: each
// with its own reference collector, rule file and settings, traced at once by
// host threads that hand the engine their application and publish nothing.
// The first is the process's agent; the second is reached only through its
// own threads and calls, so any engine path that still reads the process's
// application would send the second's work to the first collector.
#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ZXFlowpathGenerator.h"
#include "flowpath_decode.h"
#include "reference_collector.h"
#include "test_support.h"
#include "zxlb_utiles.h"

namespace {

using namespace std::chrono_literals;
using zxref::ReferenceCollector;

struct BT {
  std::string name;
  int id;
};

struct Side {
  std::string tier;
  std::string url;    // beside "/shared", which both sides request
  BT own, shared;     // the names the side's rule file gives them
  std::string start;  // the start message's settings beyond the tier's
  int threads;
  int per_thread;
  std::size_t entries_per_flowpath;  // the request and its methods under the side's limit

  // Pattern rules name the requests; the keyword rule names none of them but
  // fills a lexicon beside the other side's.
  std::string rules() const {
    return "7|" + own.name + "|" + std::to_string(own.id) + "|0|" + url + "|0\n7|" + shared.name +
           "|" + std::to_string(shared.id) + "|0|/shared|0\n2|2|r|K" + tier +
           "|-|1|1|[input1=contains&input2=nowhere]|-\n";
  }
  std::set<std::string> names() const { return {own.name, shared.name}; }
};

const Side kFirst{"TA", "/alpha", {"Alpha", 2}, {"SharedByA", 3}, "", 2, 25, 8};
const Side kSecond{
    "TB", "/beta", {"Beta", 4}, {"SharedByB", 5}, ";bciMaxNonServiceMethodsPerFP=1", 3, 10, 4};

int transactions(const Side &s) {
  return s.threads * s.per_thread;
}

// Host threads: transactions of three methods each, alternating the side's
// own URL with the shared one.
void trace(ZXProxyInstance_t &app, const Side &s) {
  std::vector<std::thread> hosts;
  for (int t = 0; t < s.threads; ++t)
    hosts.emplace_back([&app, &s] {
      for (int i = 0; i < s.per_thread; ++i) {
        const char *url = i % 2 ? "/shared" : s.url.c_str();
        ZXPerThreadData_t *r =
            startFP(&app, nullptr, url, nullptr, 0, nullptr, nullptr, nullptr, -1, 0);
        ASSERT_NE(r, nullptr);
        for (const char *m : {"Host.a", "Host.b", "Host.c"}) {
          zxMethodEntry(&app, nullptr, r, m, nullptr, nullptr, 0, nullptr, 0, 0);
          zxMethodExit(&app, nullptr, r, m, -1, 200, nullptr, -1, 0, 0, 0, 1, 0, 0);
        }
        endFP(&app, r, 200, 0, my_gettimeofday());
        releaseFP(&app, r);
      }
    });
  for (std::thread &h : hosts) h.join();
}

// Transactions the collector's record 74 lines counted for the side's BTs.
long long counted(const zxref::History &h, const Side &s) {
  long long n = 0;
  for (const zxref::Record &r : h.records) {
    if (r.number != 74 || r.fields.size() < 2) continue;
    const std::string &f = r.fields[1];
    const auto gt = f.rfind('>'), bar = f.find('|', gt == std::string::npos ? 0 : gt);
    if (gt == std::string::npos || bar == std::string::npos) continue;
    if (!s.names().count(f.substr(gt + 1, bar - gt - 1))) continue;
    double perSec, avg, min;
    long long max, count = 0;
    std::istringstream(f.substr(bar + 1)) >> perSec >> avg >> min >> max >> count;
    n += count;
  }
  return n;
}

class TwoApplications : public ::testing::Test {
 protected:
  TwoApplications() {
    EXPECT_TRUE(first_collector_.start()) << first_collector_.error();
    EXPECT_TRUE(second_collector_.start()) << second_collector_.error();
  }

  ZXProxyInstance_t &begin(zxtest::LinkedAgent &agent, ReferenceCollector &c, const Side &s) {
    agent.home().write("BTRuleFile.txt", s.rules());
    ZXProxyInstance_t &app = agent.configure(c.port());
    app.ZXSys.bciDataBufferMaxSize = 1 << 16;
    agent.run_loop();
    return app;
  }

  // Declared first, so destroyed after the agents linked to them.
  ReferenceCollector first_collector_, second_collector_;
  zxtest::LinkedAgent first_;
  zxtest::LinkedAgent second_{zxtest::LinkedAgent::Role::AnotherApplication};
};

// Everything a collector received belongs to its own application: the
// flowpaths (URLs, BTs by its rules, method entries under its limit), the BT
// names and the monitor lines under its tier.
void expectOnlyItsOwn(const ReferenceCollector &c, const Side &own, const Side &other) {
  zxref::FlowpathStore store;
  for (const zxref::Record &r : c.records()) {
    store.add(r);
    if (r.number == 74 && r.fields.size() > 1) {
      EXPECT_NE(r.fields[1].find(":" + own.tier + ">"), std::string::npos) << r.fields[1];
    }
    for (const std::string &name : other.names()) {
      for (const std::string &field : r.fields) {
        EXPECT_EQ(field.find(name), std::string::npos) << "record " << r.number << ": " << field;
      }
    }
  }
  EXPECT_EQ(store.finished_count(), static_cast<std::size_t>(transactions(own)));
  EXPECT_EQ(store.open_count(), 0u);
  for (const zxref::Flowpath &fp : store.finished()) {
    ASSERT_TRUE(fp.header);
    EXPECT_EQ(fp.bt_id, fp.header->url == own.url ? own.own.id : own.shared.id) << fp.header->url;
    EXPECT_TRUE(fp.header->url == own.url || fp.header->url == "/shared") << fp.header->url;
    EXPECT_EQ(zxref::parse_blob(fp.blob).entries.size(), own.entries_per_flowpath);
  }
}

TEST_F(TwoApplications, EachCollectorReceivesOnlyItsOwnApplicationsRecords) {
  ZXProxyInstance_t &a = begin(first_, first_collector_, kFirst);
  ZXProxyInstance_t &b = begin(second_, second_collector_, kSecond);
  ASSERT_NE(tlzxApplication, &b);
  const auto start = [](const Side &s) {
    return "status=running;tierName=" + s.tier + ";appName=A;zxAppServerHost=S;tierID=1;appID=1;" +
           "zxMonitorInterval=1" + s.start;
  };
  // Both starts at once: two control threads read their rule files and
  // settings side by side.
  std::thread first_start([&] { first_.start_run(first_collector_, start(kFirst)); });
  second_.start_run(second_collector_, start(kSecond));
  first_start.join();
  ASSERT_FALSE(HasFailure());
  ASSERT_EQ(b.ZXSys.bciMaxNonServiceMethodsPerFP, 1);
  ASSERT_EQ(a.ZXSys.bciMaxNonServiceMethodsPerFP, 50000) << "the other's settings stay its own";

  std::thread first([&] { trace(a, kFirst); });
  trace(b, kSecond);
  first.join();

  for (auto [c, s] : {std::pair{&first_collector_, &kFirst}, {&second_collector_, &kSecond}}) {
    const Side &side = *s;
    EXPECT_TRUE(c->wait_until(
        [&](const zxref::History &h) {
          std::size_t ends = 0;
          for (const zxref::Record &r : h.records) ends += r.number == 4;
          return ends == static_cast<std::size_t>(transactions(side)) &&
                 counted(h, side) == transactions(side);
        },
        10s))
        << side.tier;
  }
  expectOnlyItsOwn(first_collector_, kFirst, kSecond);
  expectOnlyItsOwn(second_collector_, kSecond, kFirst);
}

}  // namespace
