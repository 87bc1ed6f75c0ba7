#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "control_thread.h"
#include "test_support.h"
#include "zx_agent.h"
#include "zx_agent_internal.h"

using zxtest::ScopedApp;
using zxtest::ScopedEnv;
using zxtest::TempDir;

namespace {

// A temporary home with a clean agent environment.
class StartupTest : public ::testing::Test {
 protected:
  StartupTest() : zxhome_("ZXHOME", home_.str().c_str()) {}
  void conf(const std::string &text) { home_.write("config/zxsettings.conf", text); }
  void env(const char *name, const char *value) { env_.set(name, value); }

  TempDir home_;
  ScopedEnv zxhome_;
  zxtest::CleanAgentEnv env_;
};

class ConfPassTest : public StartupTest {
 protected:
  ConfPassTest() : app_(home_.str()) {}
  int run() {
    if (read_env_var(*tlzxApplication) == 0) return 0;
    return read_conf_file(*tlzxApplication);
  }
  const zxc_servers_t &entry(int i) { return app_->zxc_server_arr.at_growing(i); }
  ScopedApp app_;
};

TEST_F(ConfPassTest, CollectorIdentityAndDefaults) {
  conf("# comment\n tier=indented-is-skipped\ntierName=x\nserver=s1\ninstance=i1\nzxcHost=col\n");
  EXPECT_EQ(run(), 0);
  auto &bci = app_->ZXBCISetting;
  EXPECT_STREQ(bci.tierName.get(), "x") << "tierName= is claimed by the tier keyword";
  EXPECT_STREQ(bci.appServerName.get(), "s1");
  EXPECT_STREQ(bci.appName.get(), "i1");
  EXPECT_STREQ(entry(0).zxc_host.get(), "col");
  EXPECT_EQ(entry(0).state, 1);
  EXPECT_EQ(entry(0).zxc_port, 7892u) << "default collector port";
  EXPECT_EQ(bci.num_zxc_config, 1);
  EXPECT_STREQ(app_->ZXSys.supportedProtocolsString, "TCP");
  EXPECT_EQ(app_->zx_dr_state, 0);
  EXPECT_EQ(check_file_size_of_zxsetting_files(*tlzxApplication, 1), 0);
  conf("zxcHost=changed\n");
  EXPECT_EQ(check_file_size_of_zxsetting_files(*tlzxApplication, 1), 1) << "a change is noticed";
}

TEST_F(ConfPassTest, IdentityDefaultsWithoutFileValues) {
  conf("zxcHost=col\nzxcPort=9000\nZXC_COMM_PROTOCOL=TCP:9000,WSS:443\n");
  EXPECT_EQ(run(), 0);
  EXPECT_STREQ(app_->ZXBCISetting.tierName.get(), "Default");
  char host[257] = {};
  gethostname(host, sizeof host - 1);
  EXPECT_STREQ(app_->ZXBCISetting.appServerName.get(), host);
  EXPECT_EQ(entry(0).zxc_port, 9000u);
  EXPECT_STREQ(app_->ZXSys.supportedProtocolsString, "TCP,WSS");
  EXPECT_EQ(app_->supportedProtocols.portOf(ZX_PROTO_WSS), 443);
}

TEST_F(ConfPassTest, BackupCollectorsFillSlotsInFileOrder) {
  conf(
      "zxcHost=primary\nbackupZxcHostName=b1\nbackupZxcPort=7001\n"
      "backupZxcPort=7002\nbackupZxcHostName=b2\n"
      "backupZxcHostName=b3\nbackupZxcPort=7003\n"
      "backupZxcHostName=b4\nbackupZxcPort=7004\n"
      "backupZxcHostName=b5\nbackupZxcPort=7005\n");
  EXPECT_EQ(run(), 0);
  const char *hosts[] = {"primary", "b1", "b2", "b3", "b4", "b5"};
  const unsigned ports[] = {7892, 7001, 7002, 7003, 7004, 7005};
  for (int i = 0; i < 6; ++i) {
    EXPECT_STREQ(entry(i).zxc_host.get(), hosts[i]) << i;
    EXPECT_EQ(entry(i).zxc_port, ports[i]) << i;
  }
  EXPECT_EQ(app_->zxc_server_arr.capacity(), 10) << "grown by 5 past the first five";
  EXPECT_EQ(app_->ZXBCISetting.num_zxc_config, 6);
}

TEST_F(ConfPassTest, MissingEmptyOrNoCollector) {
  EXPECT_EQ(run(), 1);
  conf("");
  EXPECT_EQ(run(), 1);
  conf("tier=t\nzxcPort=1\n");
  EXPECT_EQ(run(), 1);
}

TEST_F(ConfPassTest, HostileFileContents) {
  std::string text = "#" + std::string(3000, 'c') + "\n";       // long comment
  text += "tier=" + std::string(1100, 't') + "zxcHost=evil\n";  // tail past 1023 chars
  text += std::string("zxcPort=\x01\xff\x80", 11) + "\n";       // binary value
  text += std::string("instance=a\0b\n", 13);                   // NUL inside a line
  text += "server\nzxcHost=\n=\n\r\n\t\n";                      // missing values
  text += "tDigestIntervalSumsBT=1\n";                          // a plain line among them
  text += "zxcHost=real\r\nagentTraceLevel=3";                  // CRLF, no final newline
  conf(text);
  EXPECT_EQ(run(), 0);
  EXPECT_TRUE(app_->tDigestIntervalSumsBT);
  EXPECT_STREQ(entry(0).zxc_host.get(), "real");
  EXPECT_EQ(std::string(app_->ZXBCISetting.tierName.c_str()).size(), 1023u - 5u);
  EXPECT_STREQ(app_->ZXBCISetting.appName.get(), "a");
  EXPECT_EQ(app_->ZXSys.agentTraceLevel, 3);
}

TEST_F(ConfPassTest, EnvironmentHostAndPortReplaceTheFile) {
  conf("zxcHost=from-file\ntier=file-tier\n");
  env("MOR_APP_AGENT_ZXCHOST", "env-host");
  env("MOR_APP_AGENT_ZXCPORT", "7100");
  env("MOR_APP_AGENT_TIER", "env-tier");
  env("MOR_APP_AGENT_TIERTAG", "tag");
  env("MOR_APP_AGENT_ZXSAASURL", "saas:9443");
  env("MOR_APP_AGENT_ZXPROJECTKEY", "key");
  env("MOR_APP_AGENT_TDIGESTINTERVALSUMSBT", "1");
  EXPECT_EQ(read_env_var(*tlzxApplication), 0);
  EXPECT_TRUE(app_->tDigestIntervalSumsBT);
  EXPECT_EQ(read_conf_file(*tlzxApplication), 0);
  auto &bci = app_->ZXBCISetting;
  EXPECT_EQ(bci.isEnableEnvVar, 1);
  EXPECT_STREQ(bci.zxcHost.get(), "env-host");
  EXPECT_STREQ(bci.tierName.get(), "env-tier");
  EXPECT_STREQ(bci.tierTag.get(), "tag");
  EXPECT_STREQ(bci.saasHost.get(), "saas");
  EXPECT_EQ(entry(0).zxc_port, 9443u) << "the SaaS port replaces entry 0's";
  EXPECT_EQ(bci.saasMode, 1);
}

TEST_F(ConfPassTest, EnvironmentHostAloneKeepsTheFile) {
  conf("zxcPort=7200\n");
  env("MOR_APP_AGENT_ZXCHOST", "env-host");
  env("MOR_APP_AGENT_TIERTAG", "ignored");
  env("MOR_APP_AGENT_INSTANCE", "");  // empty counts as unset
  EXPECT_EQ(read_env_var(*tlzxApplication), 1);
  EXPECT_EQ(read_conf_file(*tlzxApplication), 0);
  EXPECT_FALSE(app_->ZXBCISetting.tierTag.is_set());
  EXPECT_STREQ(entry(0).zxc_host.get(), "env-host");
  EXPECT_EQ(entry(0).zxc_port, 7200u);
}

TEST_F(ConfPassTest, HugeEnvironmentValues) {
  std::string big(100000, 'h');
  env("MOR_APP_AGENT_ZXCHOST", big.c_str());
  env("MOR_APP_AGENT_ZXCPORT", "99999999999999999999");
  env("MOR_APP_AGENT_ZXSAASURL", big.c_str());
  EXPECT_EQ(read_env_var(*tlzxApplication), 0);
  EXPECT_EQ(std::string(app_->ZXBCISetting.zxcHost.c_str()).size(), big.size());
  EXPECT_STREQ(app_->ZXBCISetting.saasHost.get(), "127.0.0.1") << "no ':' means the default";
}

TEST_F(ConfPassTest, InstanceNameFromPoolAndScalingMode) {
  struct Case {
    const char *mode;
    std::string expect;
  } cases[] = {{"1", "p_" + std::to_string(getpid())}, {"3", "p"}, {"0", "p*"}, {"2", ""}};
  for (const auto &c : cases) {
    app_->ZXBCISetting.appName.reset();
    app_->pool_name.assign("p");
    conf(std::string("zxcHost=h\nautoScalingMode=") + c.mode + "\n");
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(app_->ZXBCISetting.appName.c_str(), c.expect) << c.mode;
  }
  app_->ZXBCISetting.appName.reset();
  app_->pool_name.reset();
  app_->proc_name.assign("proc");
  EXPECT_EQ(run(), 0);
  EXPECT_STREQ(app_->ZXBCISetting.appName.get(), "proc");
}

TEST_F(ConfPassTest, SaasEndpointFromTheFile) {
  conf("zxProjectKey=k1\nzxSaasURL=saas.local:8443\nzxcHost=never-read\n");
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(entry(0).saasServer, 1);
  EXPECT_STREQ(entry(0).zxc_host.get(), "saas.local");
  EXPECT_EQ(entry(0).zxc_port, 8443u);
  EXPECT_FALSE(app_->ZXBCISetting.zxcHost.is_set()) << "the pass ends at the SaaS line";
}

TEST_F(ConfPassTest, ProcessFilter) {
  home_.write("config/processes.conf", "# skip\nphp-fpm.conf|1\nworker|2\nnobar\n");
  snprintf(gPool, sizeof gPool, "%s", "php");
  ASSERT_EQ(readProcessConfFile(*tlzxApplication), 0);
  EXPECT_EQ(app_->total_process_entries, 3);
  EXPECT_EQ(checkProcessNameInfo(*tlzxApplication, "PHP-whatever"), 1)
      << "compared over the pool name's length";
  EXPECT_EQ(checkProcessNameInfo(*tlzxApplication, "wor"), 2);
  EXPECT_EQ(checkProcessNameInfo(*tlzxApplication, "zzz"), 0);
  EXPECT_EQ(checkProcessNameInfo(*tlzxApplication, nullptr), 0);
}

// agent_init publishes one application object per process; ctest runs each
// of these in a process of its own.
TEST_F(StartupTest, InertWithoutConnect) {
  conf("zxcHost=h\n");
  agent_init(nullptr, 0, nullptr, nullptr);
  ASSERT_NE(tlzxApplication, nullptr);
  EXPECT_EQ(tlzxApplication, ZXProxyInstance);
  EXPECT_STREQ(gPool, "DefaultPool");
  EXPECT_STREQ(gProcessName, "DefaultProcess");
  EXPECT_EQ(tlzxApplication->control_thread, nullptr);
  EXPECT_FALSE(tlzxApplication->ZXBCISetting.appName.is_set())
      << "no pool name: no instance name is derived";
  EXPECT_TRUE(std::filesystem::is_directory(home_.path() / "logs"));
  EXPECT_NE(trace_log_key, nullptr);
}

TEST_F(StartupTest, ControlThreadWaitsForACollector) {
  std::string pool(300, 'p');
  agent_init(pool.data(), 1, nullptr, nullptr);
  ZXProxyInstance_t *app = tlzxApplication;
  EXPECT_EQ(std::string(gPool), std::string(255, 'p'));
  EXPECT_STREQ(app->ZXBCISetting.agentType.get(), "PHP");
  EXPECT_STREQ(app->agentName.get(), pool.c_str());
  ASSERT_NE(app->control_thread, nullptr);
  EXPECT_TRUE(zxtest::wait_until([&] { return app->controlThreadState == ZX_CTRL_CONFIGURING; }));

  conf("zxcHost=late\n");
  app->wakeControlThread();
  EXPECT_TRUE(zxtest::wait_until([&] { return app->controlThreadState == ZX_CTRL_CONFIGURED; }));
  EXPECT_STREQ(app->zxc_server_arr.at_growing(0).zxc_host.get(), "late");
  EXPECT_EQ(app->ActiveAgentProtocolIndex, ZX_PROTO_TCP);
  agent_shutdown();
  EXPECT_EQ(app->controlThreadState, ZX_CTRL_STOPPED);

  // The trace log opens lazily under <home>/logs with the start-up name.
  zxlb_mt_trace_log(trace_log_key, nullptr, 0, "CONTROL_THREAD", "Info", "t", 1, "fn", "hello");
  const std::regex name("zx_trace_DefaultProcess_p{64}_.*_" + std::to_string(getpid()) +
                        "\\.log_0");
  auto files = std::filesystem::directory_iterator(home_.path() / "logs");
  EXPECT_TRUE(std::any_of(begin(files), end(files), [&](const auto &e) {
    return std::regex_match(e.path().filename().string(), name);
  }));
}

}  // namespace
