#include "ZXRunTimeChangeHandle.h"

#include <memory>
#include <mutex>

#include "ZXAppTracing.h"
#include "ZXMethodManager.h"
#include "zxlb_mt_log.h"
#include "zxlb_utiles.h"

namespace {

// Unlinks `n` (whose predecessor is `prev`, null at the head) and frees it.
// Returns the node after it.
node_t *unlinkAndFree(ZXRetirementList &list, node_t *prev, node_t *n) {
  node_t *next = n->next;
  if (prev)
    prev->next = next;
  else
    list.head = next;
  if (list.tail == n) list.tail = prev;
  ZX_CTRL_LOG(1, "Info", "Node removed from linklist. [node = %p, ref_count = %d]",
              static_cast<void *>(n), n->ref_count.load(std::memory_order_relaxed));
  // Freeing a node releases the records of both its maps; records still in
  // newer nodes live on there.
  ZXMethodNodePtr owned(n);
  return next;
}

}  // namespace

ZXRetirementList::~ZXRetirementList() {
  for (node_t *n = head; n;) {
    node_t *next = n->next;
    ZXMethodNodePtr owned(n);
    n = next;
  }
}

void addNodeToLinklist(ZXAppTracing *app, node_t *node) {
  if (!app || !node) {
    ZX_CTRL_LOG(0, "Error", "Node is NULL. Hence returning");
    return;
  }
  ZXRetirementList &list = app->methodNodeRetirement;
  node->next = nullptr;
  if (list.tail)
    list.tail->next = node;
  else
    list.head = node;
  list.tail = node;
  ZX_CTRL_LOG(1, "Info", "Node added to linklist. [node = %p, head = %p, tail = %p]",
              static_cast<void *>(node), static_cast<void *>(list.head),
              static_cast<void *>(list.tail));
}

void checkAndDeleteNode(ZXAppTracing *app) {
  if (!app) return;
  std::lock_guard lk(app->methodEntryLock);
  ZXRetirementList &list = app->methodNodeRetirement;
  node_t *prev = nullptr;
  for (node_t *n = list.head; n;) {
    // Acquire pairs with the release of the last flowpath that held it.
    if (n->ref_count.load(std::memory_order_acquire) == 0) {
      n = unlinkAndFree(list, prev, n);
    } else {
      prev = n;
      n = n->next;
    }
  }
}

void checkAndClearHashMapNode(ZXAppTracing *app, int force) {
  if (!app) return;
  std::lock_guard lk(app->methodEntryLock);
  ZXRetirementList &list = app->methodNodeRetirement;
  if (!list.head) {
    ZX_CTRL_LOG(1, "Info", "Linklist is empty. hence retuning");
    return;
  }
  const long long now = my_gettimeofday();
  const int clearTime = app->ZXSys.hashMapClearTime;
  node_t *prev = nullptr;
  for (node_t *n = list.head; n;) {
    const int age = static_cast<int>((now - n->timeStamp) / 60000);
    const int refs = n->ref_count.load(std::memory_order_acquire);
    if ((age < clearTime && !force) || refs != 0) {
      // Age only says when to look: a flowpath longer than hashMapClearTime
      // still reads this node, and checkAndDeleteNode frees it once it ends.
      if (refs != 0 && (age >= clearTime || force))
        ZX_CTRL_LOG(1, "Info",
                    "Node kept in linklist, still referenced. [node = %p, ref_count = %d]",
                    static_cast<void *>(n), refs);
      prev = n;
      n = n->next;
      continue;
    }
    ZX_CTRL_LOG(1, "Info",
                "Time stamp diff '%d' is grater than hashMapClearTime '%d', Hence going to "
                "delete node.",
                age, clearTime);
    n = unlinkAndFree(list, prev, n);
  }
}

int retiredNodeCount(ZXAppTracing *app) {
  if (!app) return 0;
  std::lock_guard lk(app->methodEntryLock);
  int count = 0;
  for (node_t *n = app->methodNodeRetirement.head; n; n = n->next) ++count;
  return count;
}
