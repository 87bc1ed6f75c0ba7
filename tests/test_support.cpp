#include "test_support.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "ZXDataDispatcher.h"

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

ScopedApp::ScopedApp(const std::string &home)
    : app_(std::make_unique<ZXProxyInstance_t>()),
      prev_(tlzxApplication),
      prev_instance_(ZXProxyInstance) {
  tlzxApplication = app_.get();
  ZXProxyInstance = app_.get();
  ZXSysInit(app_->ZXSys);
  ZXBCISettingInit(app_->ZXBCISetting);
  if (!home.empty()) app_->ZXSys.zxHomePath.assign(home.c_str());
}

ScopedApp::~ScopedApp() {
  tlzxApplication = prev_;
  ZXProxyInstance = prev_instance_;
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

ScopedTraceKey::ScopedTraceKey(std::unique_ptr<MTTraceLogKey> key)
    : key_(std::move(key)), prev_(trace_log_key) {
  trace_log_key = key_.get();
}

ScopedTraceKey::~ScopedTraceKey() {
  trace_log_key = prev_;
}

}  // namespace zxtest
