// A host whose allocator fails: allocation N of agent_init, zx_init or one
// whole transaction fails, for every N those make, and the host must live on
// with neutral or correct results, no lock left held and no slot lost, and
// work normally once memory is back.
//
// This binary replaces the global operator new (and, outside sanitizer
// builds, malloc, which APR and the C library use) with versions that fail
// on request. The core is linked from its static archive, so the
// replacements reach its code. Each N runs in a child process of its own: an
// agent starts once per process.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <thread>

#include "ZXDataDispatcher.h"
#include "ZXProxyInstance.h"
#include "test_support.h"
#include "zx_sdk.h"

// The replacements below pair new with free, which GCC flags once it sees
// both ends of one allocation.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZX_TEST_FAIL_MALLOC 0  // the sanitizer owns malloc
#else
#define ZX_TEST_FAIL_MALLOC 1
#endif
#if defined(__SANITIZE_THREAD__)
constexpr long kEveryNth = 3;  // a child costs most of a second here
#else
constexpr long kEveryNth = 1;
#endif

extern "C" {
void *__libc_malloc(std::size_t);
void *__libc_calloc(std::size_t, std::size_t);
void *__libc_realloc(void *, std::size_t);
}

namespace {

// Only the host's thread is armed: the agent's own threads allocate when
// they please, which would make the numbering differ from run to run.
thread_local bool armed = false;
long allocations = 0;  // armed allocations so far; the armed thread's own
long failAt = -1;      // the armed allocation that fails, counted from 1

bool fails() {
  if (!armed || ++allocations != failAt) return false;
  errno = ENOMEM;  // as the C library's own failure does; glibc asserts it
  return true;
}

void *rawMalloc(std::size_t n) {
#if ZX_TEST_FAIL_MALLOC
  return __libc_malloc(n);
#else
  return std::malloc(n);
#endif
}

void *newOrNull(std::size_t n) {
  return fails() ? nullptr : rawMalloc(n ? n : 1);
}

}  // namespace

// The library's other forms of new and delete (arrays, nothrow) come to
// these.
void *operator new(std::size_t n) {
  if (void *p = newOrNull(n)) return p;
  throw std::bad_alloc();
}
void operator delete(void *p) noexcept {
  std::free(p);
}
void operator delete(void *p, std::size_t) noexcept {
  std::free(p);
}

#if ZX_TEST_FAIL_MALLOC
// The C library's own functions stand behind these, so free is its own.
extern "C" void *malloc(std::size_t n) {
  return fails() ? nullptr : __libc_malloc(n);
}
// glibc ends the process when it cannot register a thread_local's destructor
// (the trace log's line buffer, the BT monitor's model and the published BT
// slot lease are such thread_locals): that allocation is left alone, and not
// counted, until those hold their state without one.
static bool registersThreadLocalDestructor(void *caller) {
  Dl_info info;
  return dladdr(caller, &info) && info.dli_sname &&
         std::strcmp(info.dli_sname, "__cxa_thread_atexit_impl") == 0;
}
extern "C" void *calloc(std::size_t n, std::size_t size) {
  if (armed && registersThreadLocalDestructor(__builtin_return_address(0)))
    return __libc_calloc(n, size);
  return fails() ? nullptr : __libc_calloc(n, size);
}
extern "C" void *realloc(void *p, std::size_t n) {
  return n && fails() ? nullptr : __libc_realloc(p, n);
}
#endif

namespace {

using zxtest::TempDir;

// Checks in the child write here; the parent reports them.
int reportFd = -1;
bool childOk = true;

// Writes without allocating: the check may run while allocations fail.
void report(const char *text, int line) {
  childOk = false;
  char buf[256];
  const int n = std::snprintf(buf, sizeof buf, "%s at line %d\n", text, line);
  if (write(reportFd, buf, static_cast<std::size_t>(n)) < 0) _exit(3);
}

#define CHILD_CHECK(cond)                 \
  do {                                    \
    if (!(cond)) report(#cond, __LINE__); \
  } while (0)

struct Armed {
  Armed() { armed = true; }
  ~Armed() { armed = false; }
};

// One transaction as a host makes it. Every result is checked against what
// a call may give: its neutral result or the correct one. `complete` asks
// that nothing was neutral.
void transaction(bool arm, bool complete) {
  std::optional<Armed> a;
  if (arm) a.emplace();
  auto zeroOrNeutral = [complete](int rc) { return rc == 0 || (!complete && rc == -1); };
  zxBTHandle bt = zx_bt_begin("/alloc/cart?sku=1", nullptr);
  if (complete) CHILD_CHECK(bt != nullptr);
  zx_method_entry(bt, "Alloc.outer");
  zx_method_entry(bt, "Alloc.inner");
  zxIPCallOutHandle db = zx_ip_db_callout_begin(bt, "alloc-db", "SELECT 1");
  if (complete) CHILD_CHECK(db != nullptr);
  CHILD_CHECK(zeroOrNeutral(zx_ip_db_callout_end(bt, db)));
  zxIPCallOutHandle web = zx_ip_http_callout_begin(bt, "alloc-web", "/reserve");
  CHILD_CHECK(zeroOrNeutral(zx_ip_http_callout_end(bt, web)));
  const char *header = getTierCallOut(bt);
  CHILD_CHECK(header || !complete);
  if (header) CHILD_CHECK(std::strchr(header, '_') != nullptr);
  zx_bt_store(bt, "alloc-id");
  zxBTHandle got = zx_bt_get("alloc-id");
  CHILD_CHECK(got == bt || (!complete && got == nullptr));
  zx_method_exit(bt, "Alloc.inner");
  zx_method_exit(bt, "Alloc.outer");
  CHILD_CHECK(zeroOrNeutral(zx_bt_end(bt, 200)));
  CHILD_CHECK(zeroOrNeutral(zx_bt_release(bt)));
  cleanThreadIdToThreadLocal(4242);
  a.reset();
  if (bt) CHILD_CHECK(zx_bt_get("alloc-id") == nullptr);
}

enum class Stage { StartUp, Transaction };

// The child's whole life for one N; the result is the number of armed
// allocations it saw.
long child(Stage stage, long n) {
  failAt = n;
  alarm(30);  // a lock left held shows as a hang: bounded here
  char pool[] = "allocpool", process[] = "allocproc", type[] = "python";
  zx_set_init_pause_ms(0);
  {
    std::optional<Armed> a;
    if (stage == Stage::StartUp) a.emplace();
    agent_init(pool, 1, process, type);
    zx_init();
  }
  ZXProxyInstance_t *app = tlzxApplication;
  if (app) {
    buff_list_init(app);  // the data connection's buffers, as a run makes them
    app->Server.testRunRunning = 1;
  }
  transaction(true, false);
  const long seen = allocations;

  // Memory is back. A host that retries goes on safely, and once the agent
  // is up its transactions are whole, on this thread and on another (whose
  // calls would hang on a lock left held), with no slot lost.
  zx_init();
  const bool complete = stage == Stage::Transaction;
  transaction(false, complete);
  std::thread other([complete] { transaction(false, complete); });
  other.join();
  if (complete) CHILD_CHECK(app->gBusyTLSCnt == 0);
  return seen;
}

// Runs child(stage, n) in a process of its own; its report, or "" when
// every check held. `seen` gets its count of armed allocations.
std::string inChild(Stage stage, long n, long *seen = nullptr) {
  int fds[2];
  if (pipe(fds) != 0) return "no pipe";
  const pid_t pid = fork();
  if (pid < 0) return "no fork";
  if (pid == 0) {
    close(fds[0]);
    reportFd = fds[1];
    long count = -1;
    try {
      count = child(stage, n);
    } catch (...) {
      report("an exception reached the host", __LINE__);
    }
    const std::string tail = "count " + std::to_string(count) + "\n";
    if (write(reportFd, tail.data(), tail.size()) < 0) _exit(3);
    _exit(childOk ? 0 : 1);
  }
  close(fds[1]);
  std::string out;
  char buf[512];
  for (ssize_t got; (got = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, got);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  const size_t at = out.rfind("count ");
  if (seen && at != std::string::npos) *seen = std::atol(out.c_str() + at + 6);
  if (at != std::string::npos) out.erase(at);
  if (WIFSIGNALED(status)) out += "killed by signal " + std::to_string(WTERMSIG(status));
  return out;
}

class SdkAllocFailure : public ::testing::TestWithParam<Stage> {
 protected:
  TempDir home_;
  zxtest::ScopedEnv zxhome_{"ZXHOME", home_.str().c_str()};
};

TEST_P(SdkAllocFailure, EveryAllocationMayFail) {
  long total = 0;
  ASSERT_EQ(inChild(GetParam(), -1, &total), "") << "with no failure";
  ASSERT_GT(total, 10) << "the replaced allocator must see the core's allocations";
  int failures = 0;
  for (long n = 1; n <= total + 2 && failures < 10; n += kEveryNth) {
    const std::string out = inChild(GetParam(), n);
    if (out.empty()) continue;
    ++failures;
    ADD_FAILURE() << "allocation " << n << " of " << total << " failed: " << out;
  }
}

INSTANTIATE_TEST_SUITE_P(Stages, SdkAllocFailure,
                         ::testing::Values(Stage::StartUp, Stage::Transaction), [](const auto &p) {
                           return p.param == Stage::StartUp ? "StartUp" : "Transaction";
                         });

}  // namespace
