// Retired method-table nodes, waiting until no flowpath uses them.
//
// A profile swap appends the node it replaces; the control thread later frees
// the nodes whose reference count has fallen to 0. A node is never freed
// while referenced, however old: a transaction may outlast hashMapClearTime.
// A retired node gains no references (flowpaths take the node in force, under
// methodEntryLock), so a count seen at 0 stays 0.
//
// The last flowpath to let go does not free the node itself: that release
// runs on the application's thread at every flowpath end, and freeing there
// would put methodEntryLock and a walk of two maps on the host's hot path and
// race the control thread's passes. The next checkAndDeleteNode, run on every
// idle poll of the control loop, frees it instead.
//
// Guarded by the application's methodEntryLock.
#pragma once

struct node_t;
struct ZXAppTracing;

struct ZXRetirementList {
  node_t *head = nullptr;
  node_t *tail = nullptr;

  ZXRetirementList() = default;
  ZXRetirementList(const ZXRetirementList &) = delete;
  ZXRetirementList &operator=(const ZXRetirementList &) = delete;
  ~ZXRetirementList();  // frees what is left
};

// Appends a node (owned by the list from now on). Caller holds methodEntryLock.
void addNodeToLinklist(ZXAppTracing *app, node_t *node);
// Frees retired nodes no flowpath holds. Takes methodEntryLock.
void checkAndDeleteNode(ZXAppTracing *app);
// Frees the unreferenced retired nodes older than hashMapClearTime minutes,
// or all unreferenced ones with `force`; referenced ones stay for a later
// pass. Takes methodEntryLock.
void checkAndClearHashMapNode(ZXAppTracing *app, int force);
// Retired nodes still listed (tests, diagnostics).
int retiredNodeCount(ZXAppTracing *app);
