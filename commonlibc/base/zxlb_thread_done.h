// Marks the end of one of the agent's worker threads, so that a stop can wait
// for it with a deadline. APR and std threads offer only an unbounded join,
// and a host's exit must not wait on a thread stuck in a name lookup or a
// stalled send: past the deadline such a thread is left behind (detached),
// never joined.
//
// Lock: `m_` guards `done_`; cv_ signals its change.
#pragma once

#include <apr_thread_proc.h>
#include <apr_time.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "zxlb_status.h"

namespace zx {

class ThreadDone {
 public:
  // Before the thread is created.
  void reset() {
    std::lock_guard lk(m_);
    done_ = false;
  }
  // Last thing the thread does before it returns. Notifies under the lock:
  // a waiter may destroy this object as soon as it sees done_.
  void arrive() {
    std::lock_guard lk(m_);
    done_ = true;
    cv_.notify_all();
  }
  // True once the thread has arrived (or none was started); false when the
  // deadline (APR time; 0 = none) passed first.
  bool waitUntil(apr_time_t deadline) {
    std::unique_lock lk(m_);
    if (deadline == 0) {
      cv_.wait(lk, [this] { return done_; });
      return true;
    }
    const apr_interval_time_t left = deadline - apr_time_now();
    return cv_.wait_for(lk, std::chrono::microseconds(left > 0 ? left : 0),
                        [this] { return done_; });
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  bool done_ = true;
};

// Joins `t` once `done` says it ended by `deadline`; otherwise detaches it
// (timed_out). Ok when joined or nothing ran.
inline Status joinBy(std::thread &t, ThreadDone &done, apr_time_t deadline) {
  if (!t.joinable()) return Ok;
  if (!done.waitUntil(deadline)) {
    t.detach();
    return Errc::timed_out;
  }
  t.join();
  return Ok;
}

// The same for an APR thread; `t` is nulled either way.
inline Status joinBy(apr_thread_t *&t, ThreadDone &done, apr_time_t deadline) {
  if (!t) return Ok;
  const bool ended = done.waitUntil(deadline);
  if (ended) {
    apr_status_t rv = APR_SUCCESS;
    apr_thread_join(&rv, t);
  } else {
    apr_thread_detach(t);
  }
  t = nullptr;
  return ended ? Ok : Status(Errc::timed_out);
}

}  // namespace zx
