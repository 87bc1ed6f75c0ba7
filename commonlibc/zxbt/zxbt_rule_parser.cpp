#include "zxbt_rule_parser.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "ZXAppRules.h"
#include "ZXFileBasedKeywords.h"
#include "zxbt_bt_object.h"
#include "zxbt_utils.h"
#include "zxlb_utiles.h"

namespace {

constexpr int kPatternFields = 64;
constexpr int kThresholdFields = 64;
constexpr int kKeywordFields = 16;
constexpr int kGlobalFields = 10;
constexpr int kUriPieces = 10;
constexpr int kParamItems = 10;
constexpr int kParamPieces = 64;

// A line split at "|" in a buffer of its own (runs of separators count as
// one; fields past the cap are dropped).
template <int N>
struct Fields {
  char buf[ZXBT_LINE_SIZE];
  char *f[N];
  int n;
  explicit Fields(const char *line) {
    zxbt_copy(buf, sizeof buf, line);
    n = zxlb_get_tokens_with_multi_delimiter(buf, f, N, "|");
  }
  const char *operator[](int i) const { return i < n ? f[i] : ""; }
};

bool is_dash(const char *s) {
  return std::strcmp(s, "-") == 0;
}

// Trims surrounding white space in place.
char *trim(char *s) {
  while (std::isspace(static_cast<unsigned char>(*s))) ++s;
  char *end = s + std::strlen(s);
  while (end > s && std::isspace(static_cast<unsigned char>(end[-1]))) *--end = '\0';
  return s;
}

// The text between the first "[" and the first "]" after it, copied into
// out; false when there is none.
bool bracketed(const char *text, char *out, std::size_t size) {
  const char *open = std::strchr(text, '[');
  if (!open) return false;
  const char *close = std::strchr(open + 1, ']');
  if (!close) return false;
  const std::size_t n = static_cast<std::size_t>(close - open - 1);
  zxbt_copy(out, n + 1 < size ? n + 1 : size, open + 1);
  return true;
}

// A criterion piece: trimmed, cut at its first "=". False without "=" or
// with an empty key.
bool key_value(char *piece, char **key, char **value) {
  piece = trim(piece);
  char *eq = std::strchr(piece, '=');
  if (!eq) return false;
  *eq = '\0';
  *key = trim(piece);
  *value = trim(eq + 1);
  return **key != '\0';
}

bool key_is(const char *key, const char *name) {
  return strncasecmp(key, name, 6) == 0;
}

// Feeds every line of `text` to fn; lines are cut to ZXBT_LINE_SIZE - 1
// characters and lose a trailing carriage return.
template <typename Fn>
void for_each_line(const std::string &text, Fn fn) {
  const char *pos = text.c_str();
  char line[ZXBT_LINE_SIZE];
  while (getNextLine(line, sizeof line, &pos)) {
    const std::size_t n = std::strlen(line);
    if (n && line[n - 1] == '\r') line[n - 1] = '\0';
    if (!fn(line)) break;
  }
}

// Text of filedata: the file's content in file mode, else filedata itself.
std::string text_of(const char *filedata, bool is_path) {
  std::string text;
  if (!filedata) return text;
  if (is_path) {
    getLineFromFile(filedata, text);
  } else {
    text.assign(filedata);
  }
  return text;
}

// Binds a rule's BT to its monitor slot; ids outside the slot array (and
// exclusions, which have no slot) are left alone.
void reset_monitor_slot(ZXAppRules &app, BTObject *obj, int id) {
  if (!obj || id < 1) return;
  std::lock_guard guard(app.btManager.bt_obj_map_lock);
  checkAndIncrementAggrBTDataArray(app, obj);
}

// A set to build from: the one in force with everything that carries over
// a reload. bt_rule starts at 0: it is decided by the new text alone.
std::unique_ptr<ZXBTRuleSet> clone_for_build(const ZXBTRuleSet *cur) {
  auto next = std::make_unique<ZXBTRuleSet>();
  if (!cur) return next;
  next->global_rule = cur->global_rule;
  next->header_rule = cur->header_rule;
  next->zx_trie_node = cur->zx_trie_node;
  next->stateMachine = cur->stateMachine;
  const ZXBTCustomRule &a = cur->custom_rule;
  ZXBTCustomRule &b = next->custom_rule;
  b.chkExistence = a.chkExistence;
  b.activateReversCondition = a.activateReversCondition;
  b.setEnabled = a.setEnabled;
  b.UriOperationType = a.UriOperationType;
  b.matchHttpMethod = a.matchHttpMethod;
  std::memcpy(b.HTTPMethod, a.HTTPMethod, sizeof b.HTTPMethod);
  std::memcpy(b.rule_name, a.rule_name, sizeof b.rule_name);
  std::memcpy(b.setRuleName, a.setRuleName, sizeof b.setRuleName);
  std::memcpy(b.MatchUriValue, a.MatchUriValue, sizeof b.MatchUriValue);
  b.rule_mode = a.rule_mode;
  b.match_only_uri_count = a.match_only_uri_count;
  b.match_only_param_count = a.match_only_param_count;
  b.priority = a.priority;
  b.keyword_count = a.keyword_count;
  b.dictionary = a.dictionary;
  b.matchingURIParamObj = a.matchingURIParamObj;
  return next;
}

struct ParseState {
  ZXAppRules &app;
  ZXBTRuleSet &rules;
  std::shared_ptr<zxlbStateMachine> stateMachine;  // made by the first pattern line
};

int parse_pattern_line(ParseState &st, const char *line, int *init_state_machine);

}  // namespace

// ---------------------------------------------------------------------------
// Line kinds.

int parse_exclusion_rule(const char *) {
  return 0;
}

int parse_skip_character(ZXAppRules &app, const char *line) {
  const char *bar = line ? std::strchr(line, '|') : nullptr;
  if (bar) app.skipCount = zxbt_parse_int(bar + 1);
  ZXBT_APP_LOG(app, 0, "Info", "skipCount = %d", app.skipCount);
  return app.skipCount;
}

int parse_max_state(ZXAppRules &app, const char *line) {
  const char *bar = line ? std::strchr(line, '|') : nullptr;
  if (bar) {
    int v = zxbt_parse_int(bar + 1);
    if (v > ZXBT_MAX_STATES_HINT) {
      ZXBT_APP_LOG(app, 0, "Warning", "maxStates %d is above %d, using %d", v, ZXBT_MAX_STATES_HINT,
                   ZXBT_MAX_STATES_HINT);
      v = ZXBT_MAX_STATES_HINT;
    }
    app.maxStates = v;
  }
  ZXBT_APP_LOG(app, 0, "Info", "maxStates = %d", app.maxStates);
  return app.maxStates;
}

int parse_header_rule(ZXBTRuleSet &rules, const char *line) {
  const char *bar = line ? std::strchr(line, '|') : nullptr;
  if (!bar) {
    ZXBT_LOG(0, "Error", "Header Rule in BTRule File is not valid, Hence applying Default rule");
    return -1;
  }
  std::shared_ptr<ZXBTHeaderBasedRule> rule;
  try {
    rule = std::make_shared<ZXBTHeaderBasedRule>();
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(sizeof(ZXBTHeaderBasedRule), "header rule", 0);
    return -1;
  }
  zxbt_copy(rule->headerName, sizeof rule->headerName, bar + 1);
  ZXBT_LOG(0, "Info", "Header rules has been parsed and header name = %s", rule->headerName);
  rules.header_rule = std::move(rule);
  return 0;
}

int parse_global_rule(ZXBTRuleSet &rules, const char *data) {
  std::shared_ptr<ZXBTGlobalRule> rule;
  try {
    rule = std::make_shared<ZXBTGlobalRule>();
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(sizeof(ZXBTGlobalRule), "global rule", 0);
    return -1;
  }
  auto fields = std::make_unique<Fields<kGlobalFields>>(data ? data : "");
  if (fields->n < 9) {
    ZXBT_FILE_ERROR(
        "Number of fields in BTRule File for Global rule is less than 8, Hence applying Default "
        "rule");
    fields = std::make_unique<Fields<kGlobalFields>>(ZXBT_DEFAULT_GLOBAL_RULE);
  }
  const Fields<kGlobalFields> &f = *fields;
  ZXBTGlobalRule &g = *rule;
  g.rule_mode = zxbt_parse_int(f[1]);
  if (std::strstr(f[4], "FromFirst"))
    g.include_uri_in_name_order = 1;
  else if (std::strstr(f[4], "FromLast"))
    g.include_uri_in_name_order = 2;
  g.include_uri_in_name_segment = is_dash(f[5]) ? 2 : zxbt_parse_int(f[5]);
  const char *source = f[6];
  if (*source && !is_dash(source)) g.rule_mode = g.rule_mode == 1 ? 3 : 4;

  if (std::strcmp(source, "Request-Method") == 0) {
    g.seg_type = ZXBT_SEG_METHOD;
  } else if (std::strcmp(source, "Request-Parameter-Value") == 0) {
    g.seg_type = ZXBT_SEG_PARAMETER;
    zxbt_copy(g.parameter, sizeof g.parameter, f[7]);
    // A 256-character name loses its "=" here; such a parameter never
    // matches, which beats writing past the field.
    if (snprintf(g.parameter_at_start, sizeof g.parameter_at_start, "%s=", g.parameter) < 0 ||
        snprintf(g.parameter_at_end, sizeof g.parameter_at_end, "&%s=", g.parameter) < 0)
      g.parameter_at_start[0] = g.parameter_at_end[0] = '\0';
    g.parameter_at_start_len = static_cast<int>(std::strlen(g.parameter_at_start));
    g.parameter_at_end_len = static_cast<int>(std::strlen(g.parameter_at_end));
  } else if (std::strcmp(source, "Request-Header") == 0) {
    g.seg_type = ZXBT_SEG_HEADER;
    zxbt_copy(g.header, sizeof g.header, f[7]);
  } else if (std::strcmp(source, "Request-URI-Segments-Numbers") == 0) {
    g.seg_type = ZXBT_SEG_URI_NUMBERS;
    const char *list = is_dash(f[7]) ? "1%2C2" : f[7];
    // Cut at every "%2C"; empty pieces count (as 0).
    for (const char *p = list; g.uri_seg_no_list_length < ZXBT_MAX_URI_SEGMENTS;) {
      g.uri_seg_no_list[g.uri_seg_no_list_length++] = zxbt_parse_int(p);
      const char *sep = std::strstr(p, "%2C");
      if (!sep) break;
      p = sep + 3;
    }
  }
  ZXBT_LOG(0, "Info",
           "Global rule: rule_mode = %d, order = %d, segments = %d, seg_type = %d, "
           "parameter = %s, header = %s",
           g.rule_mode, g.include_uri_in_name_order, g.include_uri_in_name_segment, g.seg_type,
           g.parameter, g.header);
  rules.global_rule = std::move(rule);
  return 0;
}

char updateUriMatchCriteria(ZXBTCustomRule &rule, const char *criterion) {
  char inner[ZXBT_LINE_SIZE];
  if (!criterion || !bracketed(criterion, inner, sizeof inner)) return ZXBT_OP_INVALID;
  char *pieces[kUriPieces];
  const int n = zxlb_get_tokens_with_multi_delimiter(inner, pieces, kUriPieces, "&");
  for (int i = 0; i < n; ++i) {
    char *key;
    char *value;
    if (!key_value(pieces[i], &key, &value)) return ZXBT_OP_INVALID;
    if (key_is(key, "input1")) {
      rule.UriOperationType = getOperationType(value);
    } else if (key_is(key, "input2")) {
      zxbt_copy(rule.MatchUriValue, sizeof rule.MatchUriValue, value);
    } else if (key_is(key, "input3")) {
      rule.activateReversCondition = std::strcmp(value, "ActivateReverseCondition") == 0 ? 1 : 0;
    } else {
      return ZXBT_OP_INVALID;
    }
  }
  return rule.UriOperationType;
}

std::shared_ptr<const URIParamObject> updateParameterListForMatchCriteria(const char *criterion) {
  if (!criterion) return nullptr;
  std::shared_ptr<URIParamObject> obj;
  try {
    obj = std::make_shared<URIParamObject>();
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(sizeof(URIParamObject), "URI parameter condition", 0);
    return nullptr;
  }
  char items_buf[ZXBT_LINE_SIZE];
  zxbt_copy(items_buf, sizeof items_buf, criterion);
  char *items[kParamItems];
  const int n_items = zxlb_get_tokens_with_multi_delimiter(items_buf, items, kParamItems, ",");
  bool any = false;
  for (int i = 0; i < n_items; ++i) {
    char inner[ZXBT_LINE_SIZE];
    if (!bracketed(items[i], inner, sizeof inner)) continue;
    any = true;
    char *pieces[kParamPieces];
    const int n = zxlb_get_tokens_with_multi_delimiter(inner, pieces, kParamPieces, "&");
    for (int j = 0; j < n; ++j) {
      char *key;
      char *value;
      if (!key_value(pieces[j], &key, &value)) continue;
      if (key_is(key, "input1") && std::strcmp(value, "checkForExistance") == 0) {
        obj->checkExistence = 1;
        obj->parameterValue[0] = '\0';
        obj->parameterOperation = 0;
        return obj;
      }
      if (key_is(key, "input2")) {
        zxbt_copy(obj->parameterName, sizeof obj->parameterName, value);
      } else if (key_is(key, "input3")) {
        obj->parameterOperation = getOperationType(value);
      } else if (key_is(key, "input4")) {
        zxbt_copy(obj->parameterValue, sizeof obj->parameterValue, value);
      }
    }
  }
  if (!any) return nullptr;
  return obj;
}

int parse_custom_rule(ZXBTRuleSet &rules, const char *data) {
  const Fields<kKeywordFields> f(data ? data : "");
  if (f.n != 9) {
    ZXBT_FILE_ERROR(
        "Number of fields in BTRule File for custom rule is != 9, Hence applying Default rule");
    return -1;
  }
  const char *criterion = f[7];
  if (!*criterion || is_dash(criterion)) {
    ZXBT_LOG(0, "Error", "Match criteria not found returning in field[7] = %s", criterion);
    return -1;
  }
  ZXBTCustomRule &cr = rules.custom_rule;
  cr.rule_mode = zxbt_parse_int(f[1]);
  zxbt_copy(cr.rule_name, sizeof cr.rule_name, f[2]);
  zxbt_copy(cr.setRuleName, sizeof cr.setRuleName, f[3]);
  cr.priority = static_cast<unsigned int>(zxbt_parse_int(f[6]));
  cr.setEnabled = std::strcmp(f[5], "1") == 0 ? 1 : 0;

  switch (cr.rule_mode) {
    case 2: {
      ++cr.match_only_uri_count;
      if (updateUriMatchCriteria(cr, criterion) == ZXBT_OP_INVALID) {
        ZXBT_LOG(0, "Error", "Match criteria not found returning in field[7] = %s", criterion);
        return -1;
      }
      add_to_lexicon(&cr, cr.MatchUriValue, cr.priority, cr.setRuleName, cr.UriOperationType);
      return 0;
    }
    case 3: {
      std::shared_ptr<const URIParamObject> obj = updateParameterListForMatchCriteria(criterion);
      if (cr.match_only_param_count < ZXBT_MAX_PARAM_RULES)
        cr.matchingURIParamObj[cr.match_only_param_count] = obj;
      ++cr.match_only_param_count;
      if (obj) {
        add_to_lexicon(&cr, obj->parameterName, cr.priority, cr.setRuleName,
                       obj->checkExistence ? 0 : obj->parameterOperation);
        add_to_lexicon(&cr, obj->parameterValue, cr.priority, cr.setRuleName,
                       obj->parameterOperation);
      }
      return 0;
    }
    case 1: {
      zxbt_copy(cr.HTTPMethod, sizeof cr.HTTPMethod, criterion);
      add_to_lexicon(&cr, cr.HTTPMethod, cr.priority, cr.setRuleName, 0);
      cr.matchHttpMethod = getHTTPMethodValue(cr.HTTPMethod);
      return cr.matchHttpMethod == static_cast<char>(255) ? -1 : 0;
    }
    default:
      ZXBT_LOG(0, "Error", "Invalid rule mode given in field 1 = %d", cr.rule_mode);
      return -1;
  }
}

int parse_pattern_rule(ZXAppRules &app, ZXBTRuleSet &rules, const char *line,
                       int *init_state_machine) {
  if (!init_state_machine) return -1;
  ParseState st{app, rules, nullptr};
  // Copy on write: the set's automaton may be shared with a published set.
  if (*init_state_machine != 1 && rules.stateMachine) {
    try {
      st.stateMachine = std::make_shared<zxlbStateMachine>(*rules.stateMachine);
    } catch (const std::bad_alloc &) {
      ZX_LOG_OOM(sizeof(zxlbStateMachine), "pattern automaton", 0);
      return -1;
    }
  }
  const int ret = parse_pattern_line(st, line, init_state_machine);
  if (st.stateMachine) rules.stateMachine = std::move(st.stateMachine);
  return ret;
}

namespace {

int parse_pattern_line(ParseState &st, const char *line, int *init_state_machine) {
  ZXAppRules &app = st.app;
  if (!line || !init_state_machine) return -1;
  if (line[0] == '#') {
    ZXBT_APP_LOG(app, 0, "Info", "Returning found commented line = [%s]", line);
    return -1;
  }
  const Fields<kPatternFields> f(line);
  if (f.n < 6) {
    ZXBT_FILE_ERROR(
        "Number of fields in BTRule File for pattern based is  < 6, hence BTname = others");
    return -1;
  }
  if (app.isRunTime) st.rules.bt_rule = ZXBT_RULE_PATTERN;

  ZXBTPatternBasedRule r{};
  zxbt_copy(r.transactionName, sizeof r.transactionName, f[1]);
  r.transactionId = zxbt_parse_int(f[2]);
  r.matchType = zxbt_parse_int(f[3]) == 1 ? 1 : 0;
  zxbt_copy(r.pattern, sizeof r.pattern, f[4]);
  r.excludeMode = zxbt_parse_int(f[5]) != 0 ? 1 : 0;
  if (r.excludeMode) r.transactionId = ZXBT_EXCLUDED_ID;

  if (f.n >= 8) {
    r.patternMode = static_cast<char>(zxbt_parse_int(f[6]));
    switch (r.patternMode) {
      case 1:
        if (snprintf(r.pattern, sizeof r.pattern, "%s*%s*", f[4], f[7]) < 0) r.pattern[0] = '\0';
        break;
      case 2:
        zxbt_copy(r.httpMethod, sizeof r.httpMethod, f[7]);
        break;
      case 3:
        if (f.n < 9) {
          ZXBT_APP_LOG(app, 0, "Error", "num_fields = %d is equal to 8 but less than 9", f.n);
          return -1;
        }
        if (snprintf(r.pattern, sizeof r.pattern, "%s*%s*", f[4], f[7]) < 0) r.pattern[0] = '\0';
        zxbt_copy(r.httpMethod, sizeof r.httpMethod, f[8]);
        break;
      default:
        break;
    }
  }
  if (f.n >= 10) {
    const char *hdr = f[9];
    if (*hdr && hdr[0] != '-' && std::strcmp(hdr, "NA") != 0) {
      const char *eq = std::strchr(hdr, '=');
      const std::size_t name_len = eq ? static_cast<std::size_t>(eq - hdr) : std::strlen(hdr);
      zxbt_copy(r.BTHeaderName, std::min(sizeof r.BTHeaderName, name_len + 1), hdr);
      if (eq) zxbt_copy(r.BTHeaderValue, sizeof r.BTHeaderValue, eq + 1);
    }
  }
  if (f.n >= 13) r.selfRuleId = is_dash(f[12]) ? -1 : zxbt_parse_int(f[12]);
  if (f.n >= 14) r.parentRuleId = is_dash(f[13]) ? -1 : zxbt_parse_int(f[13]);
  ZXBT_APP_LOG(app, 1, "Info",
               "Pattern rule: name = %s, id = %d, matchType = %d, pattern = %s, method = %s, "
               "header = %s=%s, selfRuleId = %d, parentRuleId = %d",
               r.transactionName, r.transactionId, r.matchType, r.pattern, r.httpMethod,
               r.BTHeaderName, r.BTHeaderValue, r.selfRuleId, r.parentRuleId);

  int slow;
  int verySlow;
  zxbt_default_thresholds(app, &slow, &verySlow);
  if (*init_state_machine == 1) {
    std::shared_ptr<zxlbStateMachine> sm;
    try {
      sm = std::make_shared<zxlbStateMachine>();
    } catch (const std::bad_alloc &) {
      ZX_LOG_OOM(sizeof(zxlbStateMachine), "pattern automaton", 0);
      return -1;
    }
    if (zxlb_state_machine_init(sm.get(), app.maxStates) != 0) return -1;
    ZXBT_APP_LOG(app, 0, "Info", "State machine initialized with maxStates '%d'", sm->max_state);
    st.stateMachine = std::move(sm);
    *init_state_machine = 0;
    BTObject *others =
        find_bt_obj_in_config_map(app, "Others", ZXBT_OTHERS_ID, slow, verySlow, -1, -1);
    reset_monitor_slot(app, others, ZXBT_OTHERS_ID);
  }
  if (!st.stateMachine) return -1;
  const int len = static_cast<int>(std::strlen(r.pattern));
  if (zxlb_state_machine_add(st.stateMachine.get(), r.pattern, len, r.transactionId, r.matchType,
                             app.skipCount) != 0)
    ZXBT_APP_LOG(app, 0, "Warning", "Pattern '%s' could not be added to the automaton", r.pattern);
  // An exclusion names no BT and owns no slot.
  if (r.transactionId == ZXBT_EXCLUDED_ID) return 0;
  BTObject scratch;
  BTObject *obj = zxbt_config_object(app, r.transactionName, r.transactionId, slow, verySlow,
                                     r.selfRuleId, r.parentRuleId, &scratch);
  if (obj != &scratch) reset_monitor_slot(app, obj, r.transactionId);
  return 0;
}

}  // namespace

int parseMethodDataBtRule(const char *line) {
  ZXBT_LOG(1, "Info", "Method-data BT rule read, not applied: %s", line ? line : "");
  return 0;
}

int parseRespHeaderDataBtRule(const char *line) {
  ZXBT_LOG(1, "Info", "Response-header BT rule read, not applied: %s", line ? line : "");
  return 0;
}

int parseReqHeaderDataBtRule(const char *line) {
  ZXBT_LOG(1, "Info", "Request-header BT rule read, not applied: %s", line ? line : "");
  return 0;
}

int parseHttpBodyBtName(const char *line) {
  ZXBT_LOG(1, "Info", "HTTP-body BT rule read, not applied: %s", line ? line : "");
  return 0;
}

// ---------------------------------------------------------------------------
// Readers.

zx::Status zxbt_read_rule_file_ex(ZXAppRules &app, const char *filedata, bool is_path) {
  const std::string text = text_of(filedata, is_path);
  std::lock_guard reload(app.btRules.reloadLock);
  std::unique_ptr<ZXBTRuleSet> next;
  try {
    next = clone_for_build(app.btRules.current.current_for_writer());
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(sizeof(ZXBTRuleSet), "BT rule set", 0);
    return zx::Errc::no_memory;
  }
  ParseState st{app, *next, nullptr};
  bool rule_1_found = false, rule_2_found = false, rule_7_found = false;
  bool rule_1_applied = false, rule_7_applied = false;

  for_each_line(text, [&](const char *line) {
    switch (zxbt_parse_int(line)) {
      case 1:
        rule_1_found = true;
        break;
      case 2:
        parse_custom_rule(*next, line);
        rule_2_found = true;
        break;
      case 3:
        parse_exclusion_rule(line);
        break;
      case 4:
        parse_skip_character(app, line);
        break;
      case 5:
        parse_max_state(app, line);
        break;
      case 7:
        rule_7_found = true;
        break;
      case 8:
        parseMethodDataBtRule(line);
        break;
      case 9:
        parseRespHeaderDataBtRule(line);
        break;
      case 10:
        parseReqHeaderDataBtRule(line);
        break;
      case 11:
        parseHttpBodyBtName(line);
        break;
      default:
        break;
    }
    return true;
  });

  if (rule_7_found) {
    int init_state_machine = 1;
    for_each_line(text, [&](const char *line) {
      if (line[0] == '7' && line[1] == '|' &&
          parse_pattern_line(st, line, &init_state_machine) == 0)
        rule_7_applied = true;
      return true;
    });
    if (st.stateMachine) next->stateMachine = std::move(st.stateMachine);
  }

  if (rule_2_found && !rule_7_applied) {
    try {
      auto trie = std::make_shared<zxlbTrie>();
      zxlb_init_automaton(trie.get(), &next->custom_rule);
      next->zx_trie_node = std::move(trie);
    } catch (const std::bad_alloc &) {
      ZX_LOG_OOM(sizeof(zxlbTrie), "keyword automaton", 0);
      next->zx_trie_node.reset();
    }
  }

  if (rule_1_found && !rule_7_applied) {
    ZXBT_APP_LOG(app, 0, "Info",
                 "Rule 7 and rule 9 was not found, but rule 1 found, now parsing it.");
    for_each_line(text, [&](const char *line) {
      if (line[0] == '1' && line[1] == '|' && parse_global_rule(*next, line) == 0)
        rule_1_applied = true;
      return !rule_1_applied;
    });
  }

  next->bt_rule =
      rule_7_applied ? ZXBT_RULE_PATTERN : (rule_1_applied ? ZXBT_RULE_GLOBAL : ZXBT_RULE_NONE);
  ZXBT_APP_LOG(app, 0, "Info", "BT rule file read, bt_rule = %d", next->bt_rule);
  app.btRules.current.publish(std::move(next));
  return zx::Ok;
}

int zxbt_read_rule_file(ZXAppRules &app, const char *filedata) {
  // The protocol's reader answers 0 whatever became of the text.
  (void)zxbt_read_rule_file_ex(app, filedata, app.ZXBCISetting.fileBasedKeywordMode != 0);
  return 0;
}

zx::Status zxbt_read_threshold_file_ex(ZXAppRules &app, const char *filedata, bool is_path) {
  if (!filedata || !*filedata) return zx::Errc::bad_input;
  const std::string text = text_of(filedata, is_path);
  for_each_line(text, [&app](const char *line) {
    if (line[0] == '#') return true;
    const Fields<kThresholdFields> f(line);
    if (f.n != 3) {
      ZXBT_APP_LOG(app, 0, "Error", "Invalid threshold line = '%s', num_fields = %d", line, f.n);
      return true;
    }
    const int slow = zxbt_parse_int(f[1]);
    const int verySlow = zxbt_parse_int(f[2]);
    if (slow < 1 || verySlow < 1) {
      ZXBT_APP_LOG(app, 0, "Error", "Invalid value(s): slow '%d', very slow '%d'", slow, verySlow);
      return true;
    }
    if (slow >= verySlow) {
      ZXBT_APP_LOG(app, 0, "Error", "Invalid values: slow '%d' >= very slow '%d'", slow, verySlow);
      return true;
    }
    if (strcasecmp(f[0], "ALL") == 0) {
      zxbt_set_default_thresholds(app, slow, verySlow);
      ZXBT_APP_LOG(app, 0, "Info", "Overwriting default values for all: slow '%d', very slow '%d'",
                   slow, verySlow);
      return true;
    }
    BTObject scratch;
    BTObject *obj = zxbt_config_object(app, f[0], -1, slow, verySlow, -1, -1, &scratch);
    obj->bt_threshold.slow.store(slow, std::memory_order_relaxed);
    obj->bt_threshold.very_slow.store(verySlow, std::memory_order_relaxed);
    return true;
  });
  return zx::Ok;
}

int zxbt_read_threshold_file(ZXAppRules &app, const char *filedata) {
  return zx::asZeroOrMinusOne(
      zxbt_read_threshold_file_ex(app, filedata, app.ZXBCISetting.fileBasedKeywordMode != 0));
}

zx::Status zxbt_read_error_rules(ZXAppRules &app, const char *filedata) {
  if (!filedata) return zx::Errc::bad_input;
  const std::string text = text_of(filedata, app.ZXBCISetting.fileBasedKeywordMode != 0);
  char table[ZXBT_ERROR_TABLE_SIZE] = {};
  for_each_line(text, [&app, &table](const char *line) {
    if (line[0] == '#') return true;
    const Fields<4> f(line);
    if (f.n < 2) return true;
    const int from = zxbt_parse_int(f[0]);
    const char *dash = std::strchr(f[0], '-');
    const int to = dash && dash != f[0] ? zxbt_parse_int(dash + 1) : from;
    if (from < 0 || to >= ZXBT_ERROR_TABLE_SIZE || from > to) {
      ZXBT_APP_LOG(app, 0, "Error", "Invalid BT error rule line = '%s'", line);
      return true;
    }
    for (int c = from; c <= to; ++c) table[c] = f[1][0] == 'F' ? 'F' : 0;
    return true;
  });
  for (int c = 0; c < ZXBT_ERROR_TABLE_SIZE; ++c)
    app.btRules.btErrorArray[c].store(table[c], std::memory_order_relaxed);
  return zx::Ok;
}

void zxbtFileKeywordReader(ZXAppSettings &settings, char *value, char *, int index) {
  // Every application object is a whole one; the reader registry is below
  // the rules layer, so it hands over the settings layer.
  ZXAppRules &app = static_cast<ZXAppRules &>(settings);
  switch (index) {
    case 0:
      zxbt_read_rule_file(app, value);
      break;
    case 1:
      zxbt_read_threshold_file(app, value);
      break;
    case 2:
      (void)zxbt_read_error_rules(app, value);
      break;
    default:
      break;
  }
}

void zxbt_apply_default_global_rule(ZXAppRules &app) {
  std::lock_guard reload(app.btRules.reloadLock);
  const ZXBTRuleSet *cur = app.btRules.current.current_for_writer();
  if (cur && cur->bt_rule != ZXBT_RULE_NONE) return;
  std::unique_ptr<ZXBTRuleSet> next;
  try {
    next = clone_for_build(cur);
  } catch (const std::bad_alloc &) {
    ZX_LOG_OOM(sizeof(ZXBTRuleSet), "BT rule set", 0);
    return;
  }
  ZXBT_APP_LOG(app, 0, "Info", "Setting defult BT rule = %s", ZXBT_DEFAULT_GLOBAL_RULE);
  parse_global_rule(*next, ZXBT_DEFAULT_GLOBAL_RULE);
  app.btRules.current.publish(std::move(next));
}

int ZXBTConfigModelInit(ZXAppRules &app) {
  ZXBTManager &mgr = app.btManager;
  {
    std::lock_guard guard(mgr.bt_obj_map_lock);
    mgr.bt_obj_map.clear();
    mgr.config.bt_obj_map.clear();
    mgr.config.max_bt_count = ZXBT_MAX_BT_COUNT;
    mgr.config.total_bt_count.store(1, std::memory_order_relaxed);
  }
  ZXBTMonitorInit(app);
  registerFileKeywordReader("BTRuleConfig", zxbtFileKeywordReader);
  registerFileKeywordReader("BTTConfig", zxbtFileKeywordReader);
  registerFileKeywordReader("BTErrorRules", zxbtFileKeywordReader);

  const std::string home = app.ZXSys.zxHomePath.c_str();
  const std::string thresholds = home + "/BTThresholdFile.txt";
  const std::string rules = home + "/BTRuleFile.txt";
  (void)zxbt_read_threshold_file_ex(app, thresholds.c_str(), true);
  (void)zxbt_read_rule_file_ex(app, rules.c_str(), true);
  zxbt_apply_default_global_rule(app);
  ZXBT_APP_LOG(app, 0, "Info", "max_bt_count = %d, total_bt_count = %d, BTRuleFile = %s",
               mgr.config.max_bt_count, mgr.config.total_bt_count.load(), rules.c_str());
  return 0;
}
