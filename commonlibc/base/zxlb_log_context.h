// The application as the trace log sees it, and which application the
// calling thread works for.
//
// The foundation knows nothing of settings records; the application object
// implements this face. A thread that works for one application (control,
// data, monitor timer, a proxy's poll loop per frame) publishes it for its
// own lines; any other thread (a host's) logs for the process's application.
#pragma once

#include <cstdarg>

namespace zx {

class LogContext {
 public:
  enum class Area { Control, Agent, Hotspot, Diagnostics, PC, Exception, AutoInstr, DynamicDiag };

  virtual ~LogContext() = default;
  virtual int traceLevel(Area area) const noexcept = 0;
  virtual long long traceMaxSize() const noexcept = 0;
  // 0 off, 1 the trace files, 2 the agent-log buffer shipped to the proxy.
  virtual int logMode() const noexcept = 0;
  virtual bool proxyProcess() const noexcept = 0;
  virtual int testRunId() const noexcept = 0;
  virtual const char *buildText() const noexcept = 0;
  // Mode 2: keeps one line in the application's agent-log buffer; false
  // when there is no buffer (the line then goes to the files).
  virtual bool keepAgentLogLine(const char *threadName, long long threadId, const char *severity,
                                const char *file, int line, const char *fname, const char *format,
                                va_list ap) = 0;

 protected:
  LogContext() = default;
  LogContext(const LogContext &) = default;
  LogContext &operator=(const LogContext &) = default;
};

// The calling thread's application, else the process's; null before start-up.
LogContext *currentLogContext() noexcept;
LogContext *processLogContext() noexcept;
void setProcessLogContext(LogContext *context) noexcept;

// Publishes `context` as the calling thread's for the scope's life.
class ThreadLogScope {
 public:
  explicit ThreadLogScope(LogContext *context) noexcept;
  ~ThreadLogScope();
  ThreadLogScope(const ThreadLogScope &) = delete;
  ThreadLogScope &operator=(const ThreadLogScope &) = delete;

 private:
  LogContext *previous_;
};

}  // namespace zx
