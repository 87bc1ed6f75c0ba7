/* Demo host: a small web shop that reports its own requests through the SDK,
 * as a host without bytecode instrumentation would. Worker threads serve a
 * mix of requests for a while; each request is one business transaction with
 * nested methods and database and HTTP call-outs, a few of them slow or
 * failing. The agent core finds its collector through ZXHOME or the
 * MOR_APP_AGENT_* environment.
 *
 *   demo_host [seconds [threads]]      defaults: 12 seconds, 4 threads
 *   demo_host --requests N [threads]   a short-lived worker: N requests in all,
 *                                      no delays, a count per page, then exit
 */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "zx_sdk.h"

enum { kMaxThreads = 16 };

enum { kPages = 4 };
static const char *const kPageNames[kPages] = {"/shop/cart", "/shop/checkout", "/account/login",
                                               "/search/products/"};

/* A burst worker serves its requests without work or think time. */
static int g_no_delays;

typedef struct {
  unsigned rng;
  double until;
  long limit;          /* requests to serve; 0: until `until` */
  long served[kPages]; /* traced requests per page */
  long requests;
  long traced;
  long failed;
  char tier_header[256]; /* the first one handed to a next tier, for show */
} Worker;

static double now_s(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static void sleep_ms(long ms) {
  if (g_no_delays) return;
  struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0) {
  }
}

/* xorshift32: each worker its own reproducible sequence, no shared state. */
static unsigned next_random(unsigned *state) {
  unsigned x = *state;
  x ^= x << 13;
  x ^= x >> 17;
  x ^= x << 5;
  return *state = x;
}

static long between(Worker *w, long lo, long hi) {
  return lo + (long)(next_random(&w->rng) % (unsigned)(hi - lo + 1));
}

static int percent(Worker *w, int p) {
  return (int)(next_random(&w->rng) % 100) < p;
}

static void work(zxBTHandle bt, const char *method, long ms) {
  zx_method_entry(bt, method);
  sleep_ms(ms);
  zx_method_exit(bt, method);
}

static void query(zxBTHandle bt, const char *method, const char *db, const char *sql, long ms) {
  zx_method_entry(bt, method);
  zxIPCallOutHandle call = zx_ip_db_callout_begin(bt, db, sql);
  sleep_ms(ms);
  zx_ip_db_callout_end(bt, call);
  zx_method_exit(bt, method);
}

/* An HTTP call to another tier; the tier call-out header goes with it. */
static void call(Worker *w, zxBTHandle bt, const char *host, const char *url, long ms) {
  zxIPCallOutHandle out = zx_ip_http_callout_begin(bt, host, url);
  const char *header = getTierCallOut(bt);
  if (header && !w->tier_header[0]) snprintf(w->tier_header, sizeof w->tier_header, "%s", header);
  sleep_ms(ms);
  zx_ip_http_callout_end(bt, out);
}

static int view_cart(Worker *w, zxBTHandle bt) {
  zx_method_entry(bt, "CartController.view");
  query(bt, "CartRepository.load", "orders-db",
        "SELECT item_id, qty FROM cart_items WHERE cart_id = ?", between(w, 4, 15));
  work(bt, "PricingService.applyDiscounts", between(w, 2, 8));
  if (percent(w, 5)) work(bt, "RecommendationService.similarItems", between(w, 450, 700));
  zx_method_exit(bt, "CartController.view");
  return 200;
}

static int checkout(Worker *w, zxBTHandle bt) {
  int status = 200;
  zx_method_entry(bt, "CheckoutController.placeOrder");
  work(bt, "CheckoutService.validate", between(w, 2, 6));
  query(bt, "InventoryRepository.reserve", "inventory-db",
        "UPDATE stock SET reserved = reserved + ? WHERE sku = ?", between(w, 8, 25));
  zx_method_entry(bt, "PaymentClient.charge");
  /* The gateway is the shop's weak spot: now and then slow, sometimes down. */
  long gateway = between(w, 40, 120);
  if (percent(w, 10)) gateway = between(w, 500, 900);
  if (percent(w, 3)) gateway = between(w, 1300, 1600);
  call(w, bt, "payments-gateway", "/v1/charges", gateway);
  if (percent(w, 8)) status = 502;
  zx_method_exit(bt, "PaymentClient.charge");
  if (status == 200) {
    query(bt, "OrderRepository.save", "orders-db",
          "INSERT INTO orders (user_id, total) VALUES (?, ?)", between(w, 5, 15));
  }
  zx_method_exit(bt, "CheckoutController.placeOrder");
  return status;
}

static int login(Worker *w, zxBTHandle bt) {
  zx_method_entry(bt, "LoginController.submit");
  query(bt, "UserRepository.findByEmail", "users-db",
        "SELECT id, pw_hash FROM users WHERE email = ?", between(w, 3, 10));
  work(bt, "PasswordHasher.verify", between(w, 15, 40));
  const int ok = !percent(w, 7);
  if (ok) call(w, bt, "session-store", "/sessions", between(w, 5, 20));
  zx_method_exit(bt, "LoginController.submit");
  return ok ? 200 : 401;
}

static int search(Worker *w, zxBTHandle bt) {
  int status = 200;
  zx_method_entry(bt, "SearchController.find");
  work(bt, "QueryParser.parse", between(w, 1, 3));
  long engine = between(w, 20, 80);
  if (percent(w, 8)) engine = between(w, 420, 650); /* a cold cache */
  call(w, bt, "search-engine", "/products/_search", engine);
  if (percent(w, 3)) {
    status = 503;
  } else {
    work(bt, "Ranker.rank", between(w, 3, 10));
  }
  zx_method_exit(bt, "SearchController.find");
  return status;
}

static const char *const kTerms[] = {"shoes", "lamp", "coffee", "desk", "headphones"};

static void *serve(void *arg) {
  Worker *w = arg;
  char url[128];
  while (w->limit ? w->requests < w->limit : now_s() < w->until) {
    const int pick = (int)between(w, 0, 99);
    int (*handler)(Worker *, zxBTHandle);
    int page;
    if (pick < 35) {
      page = 0, handler = view_cart;
    } else if (pick < 55) {
      page = 1, handler = checkout;
    } else if (pick < 75) {
      page = 2, handler = login;
    } else {
      page = 3, handler = search;
    }
    if (handler == search)
      snprintf(url, sizeof url, "%s?q=%s", kPageNames[page], kTerms[between(w, 0, 4)]);
    else
      snprintf(url, sizeof url, "%s", kPageNames[page]);
    /* The request is served whether or not the agent traces it. */
    zxBTHandle bt = zx_bt_begin(url, NULL);
    const int status = handler(w, bt);
    ++w->requests;
    if (status > 499) ++w->failed;
    if (bt) {
      ++w->traced;
      ++w->served[page];
      zx_bt_end(bt, status);
      zx_bt_release(bt);
    }
    sleep_ms(between(w, 5, 30)); /* think time between requests */
  }
  return NULL;
}

int main(int argc, char **argv) {
  long burst = 0;
  int arg = 1; /* the first of [seconds] threads */
  if (argc > 2 && strcmp(argv[1], "--requests") == 0) {
    burst = atol(argv[2]);
    g_no_delays = 1;
    arg = 3;
  }
  const double seconds = burst ? 1 : argc > arg ? atof(argv[arg++]) : 12;
  const int threads = argc > arg ? atoi(argv[arg]) : burst ? 1 : 4;
  if (seconds <= 0 || burst < 0 || threads < 1 || threads > kMaxThreads) {
    fprintf(stderr, "usage: %s [seconds [threads 1-%d]]\n       %s --requests N [threads]\n",
            argv[0], kMaxThreads, argv[0]);
    return 2;
  }

  /* A short pause is enough for a collector on this machine; it ends as
   * soon as the run starts. */
  zx_set_init_pause_ms(3000);
  printf("demo_host: starting the agent (ZXHOME=%s)\n", getenv("ZXHOME") ? getenv("ZXHOME") : "-");
  fflush(stdout);
  zx_init();

  if (burst)
    printf("demo_host: serving %ld requests on %d threads\n", burst, threads);
  else
    printf("demo_host: serving requests on %d threads for %.0f s\n", threads, seconds);
  fflush(stdout);
  Worker workers[kMaxThreads];
  pthread_t ids[kMaxThreads];
  const double until = now_s() + seconds;
  int started = 0;
  for (int i = 0; i < threads; ++i) {
    memset(&workers[i], 0, sizeof workers[i]);
    workers[i].rng = 2463534242u + 7919u * (unsigned)i;
    workers[i].until = until;
    workers[i].limit = burst / threads + (i < burst % threads ? 1 : 0);
    if (pthread_create(&ids[i], NULL, serve, &workers[i]) != 0) break;
    ++started;
  }
  long requests = 0, traced = 0, failed = 0, served[kPages] = {0};
  const char *header = NULL;
  for (int i = 0; i < started; ++i) {
    pthread_join(ids[i], NULL);
    requests += workers[i].requests;
    traced += workers[i].traced;
    failed += workers[i].failed;
    for (int p = 0; p < kPages; ++p) served[p] += workers[i].served[p];
    if (!header && workers[i].tier_header[0]) header = workers[i].tier_header;
  }

  /* The BT monitor reports every interval: let the last one go out. A
   * burst worker leaves that to the proxy it sent its frames to. */
  sleep_ms(2500);
  unsigned long long records = 0, dropped = 0;
  zx_data_counters(&records, &dropped);
  printf("demo_host: %ld requests, %ld traced, %ld answered 5xx\n", requests, traced, failed);
  printf("demo_host: records handed to the data connection %llu, dropped %llu\n", records, dropped);
  if (header) printf("demo_host: a tier call-out header sent along: %s\n", header);
  if (burst)
    for (int p = 0; p < kPages; ++p) printf("demo_host: traced %s %ld\n", kPageNames[p], served[p]);
  fflush(stdout);
  zx_free();
  return 0;
}
