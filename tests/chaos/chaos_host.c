/* Chaos host: a C application that runs transactions through the SDK on a few
 * threads and times every SDK call, while the chaos driver breaks the
 * collector under it. The public header and the shared library only.
 *
 * The driver steers it through stdin, one command a line:
 *   phase              later samples go to the next latency phase (up to 4)
 *   fork N exit|run    fork N children from the main thread while the workers
 *                      run; "exit" children call exit(0) at once, "run"
 *                      children run transactions for 1.5 s, try to end one
 *                      the parent began before the fork, then exit
 *   exit               (or end of input) stop the workers, report, exit(0)
 * and reads its stdout, one line per fact:
 *   ready pid=P traced=0|1
 *   forked pid=C
 *   child pid=C status=exit:N|signal:N|hung exit_ns=T
 *   phase pid=P index=I calls=N p50=T p99=T p999=T max=T      (T in ns)
 *   parked pid=P end=R             (the parent's zx_bt_end of that transaction, at exit)
 *   worked pid=C transactions=N traced=N parked_end=R early_end=R  (a "run" child)
 *   exiting pid=P mono_ns=T                                   (just before exit())
 *   result pid=P transactions=N traced=N records=N sent=N queued=N lost_pool_full=N
 *          lost_conn_down=N lost_at_exit=N lost_oversized=N   (from atexit, after the
 *                                                              agent's own handler)
 *
 *   chaos_host [--traced-wait-ms N]    (0: start the workers without waiting for a run)
 */
#define _GNU_SOURCE

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "zx_sdk.h"

enum {
  kMaxPhases = 4,
  kMaxChildren = 16,
  kSubBits = 3, /* 8 buckets per power of two: 12.5 % resolution */
  kBuckets = (64 - kSubBits + 1) << kSubBits,
};

/* One thread's latencies per phase: counts only, nothing allocated per call. */
typedef struct {
  uint64_t count[kMaxPhases][kBuckets];
  uint64_t max[kMaxPhases];
} Histogram;

typedef struct {
  pthread_t id;
  Histogram hist;
  unsigned long long transactions;
  unsigned long long traced;
} Worker;

/* About 2 x 2000 transactions a second: enough samples for a p99.9 per phase
 * without flooding two shared cores. */
enum { kThreads = 2, kPaceUs = 500, kInitPauseMs = 200, kChildMs = 1500 };
static long g_traced_wait_ms = 5000;

static atomic_int g_phase;
static atomic_int g_stop;
static Worker g_workers[kThreads];
/* Set once the workers are joined, so the atexit report may read them. */
static unsigned long long g_transactions, g_traced;

static uint64_t now_ns(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (uint64_t)ts.tv_sec * 1000000000u + (uint64_t)ts.tv_nsec;
}

static int bucket_of(uint64_t v) {
  if (v < (1u << kSubBits)) return (int)v;
  const int msb = 63 - __builtin_clzll(v);
  return ((msb - kSubBits + 1) << kSubBits) +
         (int)((v >> (msb - kSubBits)) & ((1u << kSubBits) - 1));
}

/* The largest value a bucket holds: percentiles err on the high side. */
static uint64_t bucket_top(int b) {
  if (b < (1 << kSubBits)) return (uint64_t)b;
  const int shift = (b >> kSubBits) - 1;
  const uint64_t low = (uint64_t)((1 << kSubBits) + (b & ((1 << kSubBits) - 1))) << shift;
  return low + ((uint64_t)1 << shift) - 1;
}

static void record(Histogram *h, int phase, uint64_t ns) {
  ++h->count[phase][bucket_of(ns)];
  if (ns > h->max[phase]) h->max[phase] = ns;
}

#define TIMED(h, phase, call)             \
  do {                                    \
    const uint64_t t0_ = now_ns();        \
    call;                                 \
    record((h), (phase), now_ns() - t0_); \
  } while (0)

static void pause_us(long us) {
  struct timespec ts = {us / 1000000, (us % 1000000) * 1000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

/* One transaction as a web handler with a database query would report it;
 * every call is made whether or not the agent traces it. */
static void transaction(Worker *w) {
  const int phase = atomic_load_explicit(&g_phase, memory_order_relaxed);
  Histogram *h = &w->hist;
  zxBTHandle bt;
  zxIPCallOutHandle db;
  TIMED(h, phase, bt = zx_bt_begin("/chaos/orders", NULL));
  TIMED(h, phase, zx_method_entry(bt, "OrderController.list"));
  TIMED(h, phase, zx_method_entry(bt, "OrderRepository.find"));
  TIMED(h, phase, db = zx_ip_db_callout_begin(bt, "chaos-db", "SELECT id FROM orders WHERE u = ?"));
  TIMED(h, phase, zx_ip_db_callout_end(bt, db));
  TIMED(h, phase, zx_method_exit(bt, "OrderRepository.find"));
  TIMED(h, phase, zx_method_exit(bt, "OrderController.list"));
  TIMED(h, phase, zx_bt_end(bt, 200));
  TIMED(h, phase, zx_bt_release(bt));
  ++w->transactions;
  if (bt) ++w->traced;
}

static void *work(void *arg) {
  Worker *w = arg;
  while (!atomic_load_explicit(&g_stop, memory_order_relaxed)) {
    transaction(w);
    pause_us(kPaceUs);
  }
  return NULL;
}

static void print_phases(const Worker *workers, int n) {
  const int phases = atomic_load(&g_phase) + 1;
  for (int p = 0; p < phases; ++p) {
    uint64_t calls = 0, max = 0;
    for (int t = 0; t < n; ++t) {
      for (int b = 0; b < kBuckets; ++b) calls += workers[t].hist.count[p][b];
      if (workers[t].hist.max[p] > max) max = workers[t].hist.max[p];
    }
    const double qs[3] = {0.5, 0.99, 0.999};
    uint64_t at[3] = {0, 0, 0};
    for (int q = 0; q < 3 && calls; ++q) {
      const uint64_t rank = (uint64_t)(qs[q] * (double)calls + 0.999999);
      uint64_t seen = 0;
      for (int b = 0; b < kBuckets && !at[q]; ++b) {
        for (int t = 0; t < n; ++t) seen += workers[t].hist.count[p][b];
        if (seen >= rank) at[q] = bucket_top(b);
      }
    }
    printf("phase pid=%d index=%d calls=%llu p50=%llu p99=%llu p999=%llu max=%llu\n", (int)getpid(),
           p, (unsigned long long)calls, (unsigned long long)at[0], (unsigned long long)at[1],
           (unsigned long long)at[2], (unsigned long long)max);
  }
  fflush(stdout);
}

/* Registered before zx_init: it runs after the agent's exit handler, so that
 * records lost while the agent stops are counted. */
static void report_at_exit(void) {
  char line[512];
  zx_data_counters_t c;
  memset(&c, 0, sizeof c);
  zx_data_counters_get(&c, sizeof c);
  const int len = snprintf(line, sizeof line,
                           "result pid=%d transactions=%llu traced=%llu records=%llu sent=%llu "
                           "queued=%llu lost_pool_full=%llu lost_conn_down=%llu "
                           "lost_at_exit=%llu lost_oversized=%llu\n",
                           (int)getpid(), g_transactions, g_traced, c.records, c.sent, c.queued,
                           c.lost_pool_full, c.lost_conn_down, c.lost_at_exit, c.lost_oversized);
  /* One write: children share the pipe, and stdio may already be gone. */
  if (len > 0) {
    ssize_t w = write(STDOUT_FILENO, line, (size_t)len);
    (void)w;
  }
}

static void announce_exit(void) {
  printf("exiting pid=%d mono_ns=%llu\n", (int)getpid(), (unsigned long long)now_ns());
  fflush(stdout);
}

/* Forked children and the reaper that reports how each one ended. */
static struct {
  pid_t pid[kMaxChildren];
  int stamp_fd[kMaxChildren]; /* the child writes the time it called exit() */
  int n;
  long deadline_ms;
  pthread_t reaper;
  int reaper_running;
} g_children;

/* Begun before "run" children are forked, ended by the parent at its exit. */
static zxBTHandle g_parked;

static void child_main(int stamp_fd, int run, zxBTHandle parked) {
  if (run) {
    /* Before the child's own agent exists, the parent's handle is refused too. */
    const int early_end = zx_bt_end(parked, 200);
    /* Only this thread exists in the child: it is the child's only worker. */
    Worker *w = &g_workers[0];
    memset(w, 0, sizeof *w);
    atomic_store(&g_phase, 0);
    const uint64_t until = now_ns() + (uint64_t)kChildMs * 1000000u;
    while (now_ns() < until) {
      transaction(w);
      pause_us(kPaceUs);
    }
    g_transactions = w->transactions;
    g_traced = w->traced;
    /* Once the child's own agent traces, the parent's transaction is not its to end. */
    const int parked_end = zx_bt_end(parked, 200);
    print_phases(w, 1);
    printf("worked pid=%d transactions=%llu traced=%llu parked_end=%d early_end=%d\n",
           (int)getpid(), g_transactions, g_traced, parked_end, early_end);
  } else {
    g_transactions = g_traced = 0;
  }
  announce_exit();
  const uint64_t t = now_ns();
  ssize_t n = write(stamp_fd, &t, sizeof t);
  (void)n;
  exit(0);
}

static void *reap_children(void *arg) {
  (void)arg;
  const uint64_t deadline = now_ns() + (uint64_t)g_children.deadline_ms * 1000000u;
  int left = g_children.n;
  int done[kMaxChildren] = {0};
  while (left > 0) {
    for (int i = 0; i < g_children.n; ++i) {
      if (done[i]) continue;
      int status = 0;
      const int hung = now_ns() > deadline;
      if (hung) kill(g_children.pid[i], SIGKILL);
      if (waitpid(g_children.pid[i], &status, hung ? 0 : WNOHANG) != g_children.pid[i]) continue;
      const uint64_t ended = now_ns();
      uint64_t called = 0;
      const long long exit_ns =
          read(g_children.stamp_fd[i], &called, sizeof called) == (ssize_t)sizeof called
              ? (long long)(ended - called)
              : -1;
      close(g_children.stamp_fd[i]);
      char how[32];
      if (hung)
        snprintf(how, sizeof how, "hung");
      else if (WIFEXITED(status))
        snprintf(how, sizeof how, "exit:%d", WEXITSTATUS(status));
      else
        snprintf(how, sizeof how, "signal:%d", WIFSIGNALED(status) ? WTERMSIG(status) : -1);
      printf("child pid=%d status=%s exit_ns=%lld\n", (int)g_children.pid[i], how, exit_ns);
      fflush(stdout);
      done[i] = 1;
      --left;
    }
    if (left > 0) pause_us(1000);
  }
  return NULL;
}

static void fork_children(int n, int run) {
  if (g_children.reaper_running || n < 1 || n > kMaxChildren) return;
  if (run && !g_parked) g_parked = zx_bt_begin("/chaos/parked", NULL);
  fflush(stdout); /* a child must not print the parent's pending output again */
  for (int i = 0; i < n; ++i) {
    int fds[2];
    if (pipe(fds) != 0) break;
    const pid_t pid = fork();
    if (pid == 0) {
      close(fds[0]);
      child_main(fds[1], run, g_parked);
    }
    close(fds[1]);
    if (pid < 0) {
      close(fds[0]);
      break;
    }
    g_children.pid[g_children.n] = pid;
    g_children.stamp_fd[g_children.n] = fds[0];
    ++g_children.n;
    printf("forked pid=%d\n", (int)pid);
    fflush(stdout);
  }
  g_children.deadline_ms = (run ? kChildMs : 0) + 5000;
  g_children.reaper_running = pthread_create(&g_children.reaper, NULL, reap_children, NULL) == 0;
}

/* After zx_init: waits until the collector has a run going (a transaction is
 * traced) or the wait runs out; the transactions meanwhile are not timed. */
static int wait_until_traced(void) {
  const uint64_t deadline = now_ns() + (uint64_t)g_traced_wait_ms * 1000000u;
  do {
    zxBTHandle bt = zx_bt_begin("/chaos/warmup", NULL);
    if (bt) {
      zx_bt_end(bt, 200);
      zx_bt_release(bt);
      return 1;
    }
    pause_us(1000);
  } while (now_ns() < deadline);
  return 0;
}

static pid_t g_main_pid;

/* LeakSanitizer in a forked child still sees the parent's threads and their
 * memory, which the child cannot free: it checks the host process only. */
int __lsan_is_turned_off(void);
__attribute__((visibility("default"))) int __lsan_is_turned_off(void) {
  return getpid() != g_main_pid;
}

int main(int argc, char **argv) {
  g_main_pid = getpid();
  if (argc == 3 && !strcmp(argv[1], "--traced-wait-ms")) {
    g_traced_wait_ms = atol(argv[2]);
  } else if (argc != 1) {
    fprintf(stderr, "usage: %s [--traced-wait-ms N]\n", argv[0]);
    return 2;
  }
  atexit(report_at_exit);
  zx_set_init_pause_ms(kInitPauseMs);
  zx_init();
  const int traced = g_traced_wait_ms > 0 ? wait_until_traced() : 0;

  int started = 0;
  for (; started < kThreads; ++started) {
    if (pthread_create(&g_workers[started].id, NULL, work, &g_workers[started]) != 0) break;
  }
  printf("ready pid=%d traced=%d\n", (int)getpid(), traced);
  fflush(stdout);

  char line[128];
  while (fgets(line, sizeof line, stdin)) {
    int n = 0;
    char mode[16] = "";
    if (!strncmp(line, "phase", 5)) {
      if (atomic_load(&g_phase) + 1 < kMaxPhases) atomic_fetch_add(&g_phase, 1);
    } else if (sscanf(line, "fork %d %15s", &n, mode) == 2) {
      fork_children(n, !strcmp(mode, "run"));
    } else if (!strncmp(line, "exit", 4)) {
      break;
    }
  }

  atomic_store(&g_stop, 1);
  for (int i = 0; i < started; ++i) {
    pthread_join(g_workers[i].id, NULL);
    g_transactions += g_workers[i].transactions;
    g_traced += g_workers[i].traced;
  }
  if (g_children.reaper_running) pthread_join(g_children.reaper, NULL);
  if (g_parked) {
    printf("parked pid=%d end=%d\n", (int)getpid(), zx_bt_end(g_parked, 200));
    zx_bt_release(g_parked);
  }
  print_phases(g_workers, started);
  announce_exit();
  exit(0);
}
