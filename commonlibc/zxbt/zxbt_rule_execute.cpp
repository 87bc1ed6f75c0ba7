#include "zxbt_rule_execute.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>

#include "ZXAppRules.h"
#include "zxbt_utils.h"

namespace {

constexpr std::size_t kNameMax = 256;  // names are cut to 255 characters

using RulesReader = zx::Published<ZXBTRuleSet>::Reader;

// The value of the parameter in `param` copied into out (at most 256
// characters); false when there is none or it is empty.
bool param_value(const ZXBTGlobalRule &g, const char *param, char *out, std::size_t size) {
  if (!param || !g.parameter_at_start_len) return false;
  const char *p = param;
  if (std::strncmp(param, g.parameter_at_start, g.parameter_at_start_len) != 0) {
    const char *at = std::strstr(param, g.parameter_at_end);
    if (!at) return false;
    p = at + 1;
  }
  const char *eq = std::strchr(p, '=');
  if (!eq) return false;
  const char *v = eq + 1;
  const std::size_t n = std::strcspn(v, "&");
  if (n == 0) return false;
  zxbt_copy(out, n + 1 < size ? n + 1 : size, v);
  return true;
}

// "base.suffix", or base alone without a suffix; cut to 255 characters.
void join(char *btName, std::size_t size, const char *base, const char *suffix) {
  char tmp[kNameMax];
  if (suffix && *suffix) {
    if (snprintf(tmp, sizeof tmp, "%s.%s", base, suffix) < 0) tmp[0] = '\0';
  } else {
    zxbt_copy(tmp, sizeof tmp, base);
  }
  zxbt_copy(btName, size, tmp);
}

// Global-rule naming source "listed URI segments".
void listed_segments(const ZXBTGlobalRule &g, const char *uri, const char *base, char *btName,
                     std::size_t size) {
  const char *seg[ZXBT_MAX_URI_SEGMENTS];
  std::size_t seg_len[ZXBT_MAX_URI_SEGMENTS];
  int count = 0;
  for (const char *p = uri ? uri : ""; *p && count < ZXBT_MAX_URI_SEGMENTS;) {
    p += std::strspn(p, "/");
    if (!*p) break;
    seg[count] = p;
    seg_len[count] = std::strcspn(p, "/");
    p += seg_len[count++];
  }
  char result[kNameMax] = {};
  std::size_t used = 0;
  for (int i = 0; i < g.uri_seg_no_list_length; ++i) {
    const int k = g.uri_seg_no_list[i];
    if (k >= 1 && k <= count) {
      used += static_cast<std::size_t>(snprintf(result + used, sizeof result - used, "/%.*s",
                                                static_cast<int>(seg_len[k - 1]), seg[k - 1]));
      if (used >= sizeof result - 1) break;
      continue;
    }
    // Past the segments: "/" and the base's first segment.
    const char *second = base[0] ? std::strchr(base + 1, '/') : nullptr;
    if (second) {
      snprintf(result, sizeof result, "%.*s", static_cast<int>(second - base), base);
    } else {
      zxbt_copy(result, sizeof result, base);
    }
    break;
  }
  zxbt_copy(btName, size, result[0] ? result : base);
}

void others(char *btName, std::size_t size, const char *name) {
  zxbt_copy(btName, size, name);
}

}  // namespace

void get_bt_name_from_url(const ZXAppRules &app, const ZXBTGlobalRule &g, const char *url,
                          char *btName, std::size_t len) {
  if (!btName || len == 0) return;
  if (!url) {
    ZXBT_APP_LOG(app, 1, "Info", "URL is empty");
    btName[0] = '\0';
    return;
  }
  const std::size_t n = strnlen(url, kNameMax - 1);
  const int count = g.include_uri_in_name_segment;
  std::size_t from = 0;
  std::size_t to = n;
  if (g.include_uri_in_name_order == 2) {
    int seen = 0;
    for (std::size_t i = n; i-- > 1;) {
      if (url[i] == '/' && ++seen == count) {
        from = i;
        break;
      }
    }
  } else {
    int seen = 0;
    for (std::size_t i = 0; i < n; ++i) {
      if (url[i] == '/' && ++seen > count) {
        to = i;
        break;
      }
    }
  }
  const std::size_t m = to - from < len - 1 ? to - from : len - 1;
  std::memcpy(btName, url + from, m);
  btName[m] = '\0';
}

std::unique_ptr<char[]> get_param_value(const ZXBTGlobalRule &g, const char *param) {
  char value[kNameMax + 1];
  if (!param_value(g, param, value, sizeof value)) return nullptr;
  try {
    auto out = std::make_unique<char[]>(sizeof value);
    std::memcpy(out.get(), value, sizeof value);
    return out;
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(sizeof value, "parameter value", 0);
    return nullptr;
  }
}

char *getBtBaseOnHeader(const ZXBTGlobalRule *g, char *btHeaderValue) {
  if (!g || !btHeaderValue || !g->header[0]) return nullptr;
  char *p = std::strstr(btHeaderValue, g->header);
  if (!p) return nullptr;
  char *amp = std::strchr(p, '&');
  if (!amp) return nullptr;
  *amp = '\0';
  char *eq = std::strchr(p, '=');
  return eq ? eq + 1 : nullptr;
}

char *zxbt_execute_global_rule(const ZXAppRules &app, const ZXBTRuleSet &rules, const char *uri,
                               const char *param, const char *method, const char *header,
                               char *btName, std::size_t size) {
  if (!btName || size == 0) return nullptr;
  const ZXBTGlobalRule *g = rules.global_rule.get();
  if (!g) {
    ZXBT_APP_LOG(app, 0, "Info", "global_rule is NULL.");
    others(btName, size, "Others");
    return btName;
  }
  char base[kNameMax];
  switch (g->rule_mode) {
    case 1:
      zxbt_copy(btName, size < kNameMax ? size : kNameMax, uri ? uri : "");
      return btName;
    case 2:
      get_bt_name_from_url(app, *g, uri, btName, size);
      return btName;
    case 3:
      zxbt_copy(base, sizeof base, uri ? uri : "");
      break;
    case 4:
      get_bt_name_from_url(app, *g, uri, base, sizeof base);
      break;
    default:
      return nullptr;
  }
  switch (g->seg_type) {
    case ZXBT_SEG_METHOD:
      join(btName, size, base, method);
      return btName;
    case ZXBT_SEG_PARAMETER: {
      // The value is copied to the stack, so naming needs neither a lock
      // nor an allocation.
      char value[kNameMax + 1];
      join(btName, size, base, param_value(*g, param, value, sizeof value) ? value : nullptr);
      return btName;
    }
    case ZXBT_SEG_HEADER:
      join(btName, size, base, header);
      return btName;
    case ZXBT_SEG_URI_NUMBERS:
      listed_segments(*g, uri, base, btName, size);
      return btName;
    default:
      return nullptr;
  }
}

char *zxbt_execute_custom_rule(const ZXAppRules &app, const ZXBTRuleSet &rules, const char *uri,
                               const char *parameter, const char *httpMethod, char *btName,
                               std::size_t size) {
  const int trace = zxbt_trace_level(app);
  if (!uri && !parameter && !httpMethod) {
    ZXBT_LOG_AT(trace, 0, "Error", "All argument passed is NULL");
    return nullptr;
  }
  if (!btName || size == 0) return nullptr;
  const char *name = rules.zx_trie_node ? search_match_machine(uri, rules.zx_trie_node.get(),
                                                               &rules.custom_rule, trace)
                                        : nullptr;
  others(btName, size, name ? name : "others");
  return btName;
}

char *zxbt_execute_global_rule(ZXAppRules &app, const char *uri, const char *param,
                               const char *method, const char *header, char *btName,
                               std::size_t size) {
  RulesReader rules(app.btRules.current);
  static const ZXBTRuleSet kEmpty;
  return zxbt_execute_global_rule(app, rules.get() ? *rules.get() : kEmpty, uri, param, method,
                                  header, btName, size);
}

char *zxbt_execute_custom_rule(ZXAppRules &app, const char *uri, const char *parameter,
                               const char *httpMethod, char *btName, std::size_t size) {
  RulesReader rules(app.btRules.current);
  static const ZXBTRuleSet kEmpty;
  return zxbt_execute_custom_rule(app, rules.get() ? *rules.get() : kEmpty, uri, parameter,
                                  httpMethod, btName, size);
}

void zxbt_execute_pattern_rule() {}

void zxbt_execute_header_rule(ZXAppRules &app, const char *, char *bt_name, std::size_t len) {
  if (!bt_name) return;
  RulesReader rules(app.btRules.current);
  const ZXBTHeaderBasedRule *h = rules.get() ? rules->header_rule.get() : nullptr;
  if (!h || !h->headerValue[0]) return;
  ZXBT_APP_LOG(app, 0, "Info", "Applying header rule, header value = '%s'", h->headerValue);
  zxbt_copy(bt_name, len, h->headerValue);
}

char *getBTHeaderName(ZXAppRules &app, char *buf, std::size_t size) {
  if (!buf) return nullptr;
  RulesReader rules(app.btRules.current);
  const ZXBTHeaderBasedRule *h = rules.get() ? rules->header_rule.get() : nullptr;
  if (!h) {
    ZXBT_APP_LOG(app, 1, "Info", "Header rule is not set, returning null");
    return nullptr;
  }
  zxbt_copy(buf, size, h->headerName);
  return buf;
}

BTObject *get_obj_from_bt_name(ZXAppRules &app, const char *url, const char *parameters,
                               char *btHeaderValue, zx::NestedMutex *updateBTLock,
                               const char *httpMethod) {
  char name[ZXBT_NAME_SIZE] = {};
  {
    RulesReader reader(app.btRules.current);
    static const ZXBTRuleSet kEmpty;
    const ZXBTRuleSet &rules = reader.get() ? *reader.get() : kEmpty;
    const char *header = getBtBaseOnHeader(rules.global_rule.get(), btHeaderValue);

    if (rules.bt_rule == ZXBT_RULE_PATTERN) {
      char complete_url[kNameMax];
      const int n = snprintf(complete_url, sizeof complete_url, "%s?%s", url ? url : "",
                             parameters ? parameters : "");
      const int len = n < static_cast<int>(sizeof complete_url) ? n : sizeof complete_url - 1;
      int id = zxlb_state_machine_get(rules.stateMachine.get(), complete_url, len, 0);
      if (id == ZXBT_EXCLUDED_ID) {
        ZXBT_APP_LOG(app, 1, "Info",
                     "Pattern rule : Got id = '%d', excluding for complete_url = '%s'", id,
                     complete_url);
        return nullptr;
      }
      if (id < 1) {
        ZXBT_APP_LOG(app, 1, "Info",
                     "Pattern rule : Got id = '%d', setting to 1 for complete_url = '%s'", id,
                     complete_url);
        id = ZXBT_OTHERS_ID;
      }
      const ZXBTMonitorDataCounters *slot = btMonitorSlot(app.btMonitor, id);
      if (!slot) {
        ZXBT_APP_LOG(app, 0, "Info", "aggDataArraySize(%d) <= id(%d), hence no btobj found",
                     app.btMonitor.aggDataArraySize.load(std::memory_order_relaxed), id);
        return nullptr;
      }
      BTObject *obj = slot->tlBTObj.load(std::memory_order_acquire);
      if (obj) zxbt_apply_dd_window(app, obj);
      return obj;
    }

    const ZXBTHeaderBasedRule *hr = rules.header_rule.get();
    if (hr && hr->headerValue[0]) {
      zxbt_copy(name, sizeof name, btHeaderValue);
    } else if (rules.custom_rule.rule_mode != 0) {
      zxbt_execute_custom_rule(app, rules, url, nullptr, nullptr, name, sizeof name);
    } else {
      zxbt_execute_global_rule(app, rules, url, parameters, httpMethod, header, name, sizeof name);
    }
  }
  // An empty name would only use up an id: the request carries no BT.
  if (!name[0]) return nullptr;
  if (BTObject *found = app.btManager.bt_obj_map.get(name)) {
    zxbt_apply_dd_window(app, found);
    return found;
  }
  if (updateBTLock) {
    std::lock_guard guard(*updateBTLock);
    return updateBTObject(app, name);
  }
  return updateBTObject(app, name);
}

char getBTCategoryBasedOnThresold(const ZXAppRules &app, char *tlIsFPCaptured,
                                  const Threshold &bt_threshold, long long duration) {
  const long long slow = bt_threshold.slow.load(std::memory_order_relaxed);
  const long long verySlow = bt_threshold.very_slow.load(std::memory_order_relaxed);
  char category = duration < slow       ? ZXBT_CATEGORY_NORMAL
                  : duration < verySlow ? ZXBT_CATEGORY_SLOW
                                        : ZXBT_CATEGORY_VERY_SLOW;
  if (category == ZXBT_CATEGORY_NORMAL && app.ZXSys.bciInstrSessionPct == 0 &&
      app.ZXSys.captureMethodForAllFP == 1) {
    if (tlIsFPCaptured) *tlIsFPCaptured = 0;
    category = ZXBT_CATEGORY_NONE;
  }
  return category;
}

char findCategoryOfBT(const ZXAppRules &app, const Threshold &bt_threshold, long long duration,
                      int statusCode, char *tlIsFPCaptured) {
  if (statusCode >= 0 && statusCode < ZXBT_ERROR_TABLE_SIZE &&
      app.btRules.btErrorArray[statusCode].load(std::memory_order_relaxed) == 'F')
    return ZXBT_CATEGORY_ERROR;
  return getBTCategoryBasedOnThresold(app, tlIsFPCaptured, bt_threshold, duration);
}
