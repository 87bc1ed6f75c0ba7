#include "test_support.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

#include "ZXDataDispatcher.h"
#include "ZXDataThread.h"
#include "ZXMonitorTimer.h"
#include "control_connection.h"
#include "control_thread.h"
#include "reference_collector.h"
#include "zx_agent_stop.h"
#include "zx_sdk.h"
#include "zxlb_mem_pool.h"

namespace zxtest {

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "zxtest-XXXXXX").string();
  char *made = mkdtemp(tmpl.data());
  if (!made) throw std::runtime_error("mkdtemp failed");
  path_ = made;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::filesystem::path TempDir::write(const std::string &relative, const std::string &text) const {
  auto p = path_ / relative;
  std::filesystem::create_directories(p.parent_path());
  std::ofstream out(p, std::ios::binary);
  out << text;
  return p;
}

std::string read_file(const std::filesystem::path &p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::size_t count_of(const std::string &text, const std::string &what) {
  std::size_t n = 0;
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += what.size()) ++n;
  return n;
}

TestPki::TestPki() {
  const Pair server = issue("server", "ca", "IP:127.0.0.1,DNS:localhost", 2);
  ca_file = (dir_.path() / "ca.pem").string();
  cert_file = server.cert_file;
  key_file = server.key_file;
}

TestPki::Pair TestPki::unknown_ca() {
  return issue("unknown-ca-server", "other-ca", "IP:127.0.0.1,DNS:localhost", 2);
}

TestPki::Pair TestPki::wrong_host() {
  return issue("wrong-host-server", "ca", "IP:192.0.2.1,DNS:wrong.invalid", 2);
}

TestPki::Pair TestPki::expired() {
  // A negative validity puts notAfter before notBefore: expired from the start.
  return issue("expired-server", "ca", "IP:127.0.0.1,DNS:localhost", -1);
}

bool TestPki::run(const std::string &args) {
  // stderr kept beside the files, shown only when a step fails.
  const std::string log = (dir_.path() / "openssl.log").string();
  const std::string cmd = "cd '" + dir_.str() + "' && openssl " + args + " >'" + log + "' 2>&1";
  if (std::system(cmd.c_str()) == 0) return true;
  ADD_FAILURE() << "openssl " << args << "\n" << read_file(log);
  return false;
}

bool TestPki::make_ca(const std::string &ca) {
  if (std::filesystem::exists(dir_.path() / (ca + ".pem"))) return true;
  // EC keys: generated in milliseconds, unlike RSA.
  return run("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + ca +
             ".key -out " + ca + ".pem -days 2 -subj '/CN=" + ca +
             " test authority' -addext basicConstraints=critical,CA:TRUE"
             " -addext keyUsage=critical,keyCertSign,cRLSign");
}

TestPki::Pair TestPki::issue(const std::string &name, const std::string &ca, const std::string &san,
                             int days) {
  Pair p{(dir_.path() / (name + ".pem")).string(), (dir_.path() / (name + ".key")).string()};
  if (std::filesystem::exists(p.cert_file)) return p;
  dir_.write(name + ".ext", "subjectAltName=" + san +
                                "\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n");
  (void)(make_ca(ca) &&
         run("req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + name +
             ".key -out " + name + ".csr -subj '/CN=" + name + "'") &&
         run("x509 -req -in " + name + ".csr -CA " + ca + ".pem -CAkey " + ca +
             ".key -set_serial " + std::to_string(++serial_) + " -days " + std::to_string(days) +
             " -extfile " + name + ".ext -out " + name + ".pem"));
  return p;
}

ScopedEnv::ScopedEnv(const char *name, const char *value) : name_(name) {
  const char *old = std::getenv(name);
  had_old_ = old != nullptr;
  if (old) old_ = old;
  if (value)
    setenv(name, value, 1);
  else
    unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
  if (had_old_)
    setenv(name_.c_str(), old_.c_str(), 1);
  else
    unsetenv(name_.c_str());
}

ScopedApp::ScopedApp(const std::string &home, bool publish)
    : app_(std::make_unique<ZXProxyInstance_t>()), published_(publish), prev_(tlzxApplication) {
  if (published_) publishApplication(app_.get());
  if (!home.empty()) app_->ZXSys.zxHomePath.assign(home.c_str());
}

ScopedApp::~ScopedApp() {
  if (published_) publishApplication(prev_);
}

std::string drain_records(ZXProxyInstance_t &app) {
  std::string out;
  movePartialToReadList(app.sendBuffers);
  while (nioSettings_t *b = sendBufferHead(app.sendBuffers)) {
    out.append(b->buff, static_cast<size_t>(b->use_len));
    markBufferSent(app.sendBuffers, b, b->use_len - b->send_len);
  }
  return out;
}

ZXSendCounts scanned_send_counts(ZXProxyInstance_t &app) {
  ZXSendBufferPool &pool = app.sendBuffers;
  std::lock_guard send(pool.sendLock);
  std::lock_guard write(pool.bufferWriteLock);
  std::lock_guard move(pool.bufferMoveLock);
  ZXSendCounts c = readSendCounts(pool);
  c.queued = 0;
  for (nioSettings_t *b = pool.readList; b; b = b->next.load())
    c.queued +=
        countRecordLines(b->buff + b->send_len, static_cast<size_t>(b->use_len - b->send_len));
  if (nioSettings_t *b = pool.writeList.load())
    c.queued += countRecordLines(b->buff, static_cast<size_t>(b->use_len));
  return c;
}

ScopedTraceKey::ScopedTraceKey(std::unique_ptr<MTTraceLogKey> key)
    : key_(std::move(key)), prev_(trace_log_key) {
  trace_log_key = key_.get();
}

ScopedTraceKey::~ScopedTraceKey() {
  trace_log_key = prev_;
}

const std::vector<const char *> kAgentEnvVars = {
    "MOR_APP_AGENT_TIER",
    "MOR_APP_AGENT_SERVER",
    "MOR_APP_AGENT_INSTANCE",
    "MOR_APP_AGENT_ZXCHOST",
    "MOR_APP_AGENT_ZXCPORT",
    "MOR_APP_AGENT_ZXC_COMM_PROTOCOL",
    "MOR_APP_AGENT_ZXSAASURL",
    "MOR_APP_AGENT_ZXPROJECTKEY",
    "MOR_APP_AGENT_ZXTLSCAFILE",
    "MOR_APP_AGENT_ZXTLSVERIFYPEER",
    "MOR_APP_AGENT_TDIGESTINTERVALSUMSBT",
    "MOR_APP_AGENT_BACKUPZXCHOSTNAME",
    "MOR_APP_AGENT_BACKUPZXCPORT",
    "MOR_APP_AGENT_TIERATTRIBUTES",
    "MOR_APP_AGENT_APPNAME",
    "MOR_APP_AGENT_ENDPOINTPREFIX",
    "MOR_APP_AGENT_TIERTAG",
    "MOR_APP_AGENT_AGENTLOGGINGMODE",
};

CleanAgentEnv::CleanAgentEnv() {
  for (const char *name : kAgentEnvVars) set(name, nullptr);
}

std::unique_ptr<zxref::ReferenceCollector> start_collector(zxref::Behaviour b, std::uint16_t port,
                                                           int receive_buffer) {
  zxref::Config config;
  config.port = port;
  config.behaviour = std::move(b);
  config.receive_buffer_bytes = receive_buffer;
  auto c = std::make_unique<zxref::ReferenceCollector>(std::move(config));
  EXPECT_TRUE(c->start()) << c->error();
  return c;
}

LinkedAgent::LinkedAgent(Role role) : role_(role) {
  if (role_ == Role::ProcessAgent) zxhome_.emplace("ZXHOME", home_.str().c_str());
}

LinkedAgent::~LinkedAgent() {
  stop_agent();
  // The agent's side of a failure, for whoever reads the test output.
  if (::testing::Test::HasFailure() && trace_) {
    std::string log = trace_log();
    if (log.size() > 20000) log.erase(0, log.size() - 20000);
    if (!log.empty()) std::cerr << "--- agent trace\n" << log;
  }
}

std::string LinkedAgent::trace_log() const {
  return read_file(home_.path() / "trace.log_1") + read_file(home_.path() / "trace.log_0");
}

ZXProxyInstance_t &LinkedAgent::configure(std::uint16_t port, const std::string &extra,
                                          const std::string &host) {
  home_.write("config/zxsettings.conf",
              "zxcHost=" + host + "\nzxcPort=" + std::to_string(port) + "\n" + extra);
  trace_.reset();  // its lock lives in the pool of the application it replaces
  app_.emplace(home_.str(), role_ == Role::ProcessAgent);
  ZXProxyInstance_t &a = **app_;
  if (role_ == Role::ProcessAgent)
    trace_.emplace(zxlb_init_mt_trace_log_ex(home_.str().c_str(), "trace.log", 1, 100));
  zx::ThreadAppScope scope(&a);
  a.ZXSys.controlTraceLevel = 1;
  ZXLinkTimings_t &t = a.linkTimings;
  t.retryInterval = t.ctrlPollTimeout = apr_time_from_msec(20);
  t.connectTimeout = t.ctrlIoTimeout = apr_time_from_sec(2);
  t.dataConnRetryInterval = t.dataIoTimeout = apr_time_from_msec(50);
  t.dataTick = apr_time_from_msec(5);
  a.ZXSys.bciDataBufferMaxSize = 4096;
  a.ZXSys.dataBuffMaxCount = 16;
  initPerThreadSlots(&a);
  EXPECT_TRUE(control_thread_configure(&a).ok());
  return a;
}

void LinkedAgent::run_loop() {
  loop_ = std::thread([this] {
    zx::ThreadAppScope scope(&app());
    control_connection_loop(&app());
  });
}

void LinkedAgent::restart_loop() {
  app().stopRequested = false;
  run_loop();
}

void LinkedAgent::stop_agent() {
  if (!app_) return;
  if (loop_.joinable()) {
    request_control_stop(&app());
    loop_.join();
  }
  // Every thread the run started, before the trace key and the application
  // they use go away.
  zx::ThreadAppScope scope(&app());
  (void)agent_stop_by(&app(), 0);
}

void LinkedAgent::start_run(zxref::ReferenceCollector &c, const std::string &pairs) {
  using namespace std::chrono_literals;
  ASSERT_TRUE(c.wait_for_connections(zxref::ConnKind::Control, 1, 10s));
  ASSERT_TRUE(c.send_start(pairs));
  ASSERT_TRUE(c.wait_for_control_line(
      [](std::string_view l) {
        return l.rfind("zx_control_rep:action=start_instrumentation", 0) == 0;
      },
      10s));
  ASSERT_TRUE(c.wait_for_record(99, 10s));
}

ZXProxyInstance_t &LinkedAgent::start_sdk_run(zxref::ReferenceCollector &c) {
  ZXProxyInstance_t &a = configure(c.port());
  a.ZXSys.bciDataBufferMaxSize = 1 << 16;
  run_loop();
  zx_set_init_pause_ms(0);
  zx_init();
  start_run(c);
  return a;
}

}  // namespace zxtest
