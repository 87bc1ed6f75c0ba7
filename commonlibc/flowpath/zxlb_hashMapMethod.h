// Method records and the string-keyed maps that hold them.
//
// A record is shared by every map it is in: a profile swap copies the maps,
// not the records (names and ids must stay as the collector learnt them). So
// a record counts the maps that hold it, and freeing a map only releases its
// references; the last one frees the record. Maps are APR hash tables keyed
// by the record's own methodName, allocated from the pool given to
// create_hashmap.
#pragma once

#include <apr_hash.h>
#include <apr_pools.h>

#include <atomic>
#include <memory>

#include "zxlb_owned_string.h"

struct methodArgList_t {
  zx::OwnedString argName;
  zx::OwnedString type;
};

struct methodPropProperties {
  char type = 0;  // call-outs: 1 HTTP, 2 database
  char callOutValue = 0;
  zx::OwnedString moduleName, methodName, mon_methodName, customCalloutName, aliasMethodName,
      methodRetType;
  char autoDeInstrFlg = 0, isInBlackListFlg = 0;
  int methodId = 0;
  int isEntryPoint = 0;  // bit 1 service method, bit 8 call-out
  // Run state, cleared by a swap while in-flight flowpaths may read it.
  std::atomic<int> usedFlag{0};
  std::atomic<int> instrumentationStatus{0};
  int instrumentationProp = 0, isAsyncCall = 0;
  unsigned int methodArgsListCount = 0;
  std::unique_ptr<methodArgList_t[]> methodArgList;
  methodPropProperties *customCalloutptr = nullptr;
  std::atomic<int> mapRefs{0};  // maps holding this record
};

// A zeroed record named `name` (not yet in any map); null when memory is short.
methodPropProperties *newMethodRecord(const char *name);
// Drops one map's hold; the last frees the record.
void releaseMethodRecord(methodPropProperties *record);

apr_hash_t *create_hashmap(apr_pool_t *pool);
// The record stored under the whole of `key`, or null.
methodPropProperties *search_hashmap(const char *key, apr_hash_t *map);
// Stores `value` under its methodName (`key` is only compared), releasing a
// record it replaces. A null map or value does nothing. Serialised by
// modify_hashmap_lock.
void modify_hashmap(const char *key, methodPropProperties *value, apr_hash_t *map);
// Releases every record of the map and empties it.
void iterate_hashtable_and_free_hashmap(apr_hash_t *map);
// `to` gets every entry of `from` (a reference more on each record).
void copy_hashmap(apr_hash_t *from, apr_hash_t *to);
