/* Load host for the proxy's figures: an application process that emits
 * method entries and exits through the public SDK as fast as one thread
 * can, in transactions of a fixed number of methods. It finds the proxy as
 * any host does (ZXHOME settings with proxyMode=1, or MOR_APP_AGENT_*).
 *
 *   proxy_load_host SECONDS [PAIRS [RATE [BTS]]]
 *     SECONDS  how long to emit (0: only BTS transactions, then exit)
 *     PAIRS    method entry/exit pairs per transaction (default 100)
 *     RATE     method events per second at most (default 0: no limit)
 *     BTS      transactions at most (default 0: no limit)
 *
 * Before it exits it waits (bounded) for its send buffers to drain, then
 * prints one line the bench driver reads:
 *   proxy_load_host: methods=M transactions=T seconds=S frames=F sent=N lost=L queued=Q
 * where methods counts entries and exits, and frames/sent/lost/queued are
 * the data counters of its connection to the proxy.
 */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "zx_sdk.h"

enum { kNames = 8 };
static const char *const kMethods[kNames] = {
    "LoadController.handle", "LoadService.compute", "LoadRepository.fetch", "LoadCache.get",
    "LoadCodec.decode",      "LoadCodec.encode",    "LoadValidator.check",  "LoadMapper.map"};

static double now_s(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static void pause_ms(long ms) {
  struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0) {
  }
}

int main(int argc, char **argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s SECONDS [PAIRS [RATE [BTS]]]\n", argv[0]);
    return 2;
  }
  const double seconds = atof(argv[1]);
  const long pairs = argc > 2 ? atol(argv[2]) : 100;
  const double rate = argc > 3 ? atof(argv[3]) : 0;
  const long limit = argc > 4 ? atol(argv[4]) : 0;
  if (seconds < 0 || pairs < 0 || rate < 0 || limit < 0 || (seconds == 0 && limit == 0)) {
    fprintf(stderr, "%s: bad arguments\n", argv[0]);
    return 2;
  }

  zx_set_init_pause_ms(10000);
  zx_init();

  unsigned long long methods = 0, transactions = 0;
  const double begin = now_s();
  const double until = begin + seconds;
  for (;;) {
    if (limit && (long)transactions >= limit) break;
    const double now = now_s();
    if (seconds > 0 && now >= until) break;
    /* Paced: a process ahead of its rate waits for the clock to catch up. */
    if (rate > 0) {
      const double due = begin + (double)methods / rate;
      if (due > now) pause_ms((long)((due - now) * 1000) + 1);
    }
    zxBTHandle bt = zx_bt_begin("/load/compute", NULL);
    if (!bt) {
      /* No run yet (or no more): nothing would be traced. */
      if (seconds == 0 || now_s() >= until) break;
      pause_ms(1);
      continue;
    }
    for (long i = 0; i < pairs; ++i) {
      zx_method_entry(bt, kMethods[i % kNames]);
      zx_method_exit(bt, kMethods[i % kNames]);
    }
    methods += 2ULL * (unsigned long long)pairs;
    zx_bt_end(bt, 200);
    zx_bt_release(bt);
    ++transactions;
  }
  const double elapsed = now_s() - begin;

  /* The exit path drains too, but only the counters read here can tell
   * the driver what became of every frame. */
  zx_data_counters_t c = {0};
  for (int i = 0; i < 1000; ++i) {
    if (zx_data_counters_get(&c, sizeof c) != 0 || c.queued == 0) break;
    pause_ms(10);
  }
  const unsigned long long lost =
      c.lost_pool_full + c.lost_conn_down + c.lost_at_exit + c.lost_oversized;
  printf(
      "proxy_load_host: methods=%llu transactions=%llu seconds=%.3f frames=%llu sent=%llu "
      "lost=%llu queued=%llu\n",
      methods, transactions, elapsed, c.records, c.sent, lost, c.queued);
  fflush(stdout);
  zx_free();
  return 0;
}
