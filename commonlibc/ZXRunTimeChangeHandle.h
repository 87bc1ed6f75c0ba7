// Retired method-table nodes, waiting until no flowpath uses them.
//
// A profile swap appends the node it replaces; the control thread later frees
// nodes whose reference count has fallen to 0 (checkAndDeleteNode) or that
// are older than hashMapClearTime minutes whatever their count
// (checkAndClearHashMapNode). Guarded by the application's methodEntryLock.
#pragma once

struct node_t;
struct ZXProxyInstance_t;

struct ZXRetirementList {
  node_t *head = nullptr;
  node_t *tail = nullptr;

  ZXRetirementList() = default;
  ZXRetirementList(const ZXRetirementList &) = delete;
  ZXRetirementList &operator=(const ZXRetirementList &) = delete;
  ~ZXRetirementList();  // frees what is left
};

// Appends a node (owned by the list from now on). Caller holds methodEntryLock.
void addNodeToLinklist(ZXProxyInstance_t *app, node_t *node);
// Frees retired nodes no flowpath holds. Takes methodEntryLock.
void checkAndDeleteNode(ZXProxyInstance_t *app);
void checkAndDeleteNode();
// Frees retired nodes older than hashMapClearTime minutes, or all with
// `force`. Takes methodEntryLock.
void checkAndClearHashMapNode(ZXProxyInstance_t *app, int force);
void checkAndClearHashMapNode(int force);
// Retired nodes still listed (tests, diagnostics).
int retiredNodeCount(ZXProxyInstance_t *app);
