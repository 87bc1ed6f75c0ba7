// The BT rule-file and threshold-file readers, and the rule set they build.
//
// A rule set is everything that classifying a request reads: which family is
// in force, the global and header rules, the keyword rules with their
// automaton and the URL pattern automaton. A read builds a new set aside,
// starting from the one in force (keyword rules and the global rule carry
// over a reload), and publishes it in one step; requests being classified
// keep the set they started with. BT objects and monitor slots that a read
// creates are made as it goes, before the set that names them is published.
//
// Reads run on the start-up thread or the control thread and are serialised
// by ZXBTRules::reloadLock.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>

#include "zx_bt_custom_rule.h"
#include "zxbt_published.h"
#include "zxlb_state_machine.h"
#include "zxlb_status.h"

struct ZXAppSettings;
struct ZXAppRules;

inline constexpr int ZXBT_RULE_PATTERN = 7;
inline constexpr int ZXBT_RULE_GLOBAL = 1;
inline constexpr int ZXBT_RULE_NONE = 0;
inline constexpr int ZXBT_MAX_URI_SEGMENTS = 32;
inline constexpr int ZXBT_ERROR_TABLE_SIZE = 600;
// A kind-5 line sizes the pattern automaton up front (131 rows of this many
// ints); larger values are cut to it, the automaton still grows on demand.
inline constexpr int ZXBT_MAX_STATES_HINT = 65536;
inline constexpr const char *ZXBT_DEFAULT_GLOBAL_RULE =
    "1|2|Default|Segments-Of-URI-With-Dynamic-Part-Of-Request|FromFirst|2|Request-Header|"
    "CustomeHeader|-";

// Global-rule naming sources (seg_type).
enum : int {
  ZXBT_SEG_URI_NUMBERS = 3,
  ZXBT_SEG_METHOD = 4,
  ZXBT_SEG_PARAMETER = 5,
  ZXBT_SEG_HEADER = 6,
};

// One pattern line while it is parsed.
struct ZXBTPatternBasedRule {
  char transactionName[256];
  int transactionId;  // -2: exclusion
  char matchType;
  char pattern[256];
  char excludeMode;
  char patternMode;
  char parameter[256];
  char httpMethod[256];
  char BTHeaderName[256];
  char BTHeaderValue[256];
  int selfRuleId;
  int parentRuleId;
};

struct ZXBTGlobalRule {
  int rule_mode;  // 1 URI, 2 segments, 3 URI + source, 4 segments + source
  int match_type;
  char parameter[257];
  char parameter_at_start[257];  // parameter + "="
  int parameter_at_start_len;
  char parameter_at_end[257];  // "&" + parameter + "="
  int parameter_at_end_len;
  char header[257];
  int include_uri_in_name_order;  // 1 from the first segment, 2 from the last
  int include_uri_in_name_segment;
  int seg_type;
  int uri_seg_no_list[ZXBT_MAX_URI_SEGMENTS];
  int uri_seg_no_list_length;
};

struct ZXBTHeaderBasedRule {
  char headerName[256];
  char headerValue[256];
};

// What classification reads. Immutable once published; the automata and
// rules behind shared pointers are shared with later sets and never changed
// after the read that made them.
struct ZXBTRuleSet {
  int bt_rule = ZXBT_RULE_NONE;  // 7 pattern rules, 1 global rule, 0 none
  std::shared_ptr<const ZXBTGlobalRule> global_rule;
  std::shared_ptr<const ZXBTHeaderBasedRule> header_rule;
  ZXBTCustomRule custom_rule;
  std::shared_ptr<const zxlbTrie> zx_trie_node;
  std::shared_ptr<const zxlbStateMachine> stateMachine;
};

struct ZXBTRules {
  zx::Published<ZXBTRuleSet> current;
  // Serialises reads of rule files and the default rule (writers of
  // `current`).
  std::mutex reloadLock;
  // "F" at a status code marks it an error; written whole by the
  // "BTErrorRules" file, read per transaction.
  std::array<std::atomic<char>, ZXBT_ERROR_TABLE_SIZE> btErrorArray{};
};

// File mode (ZXBCISetting.fileBasedKeywordMode set): filedata is a path;
// otherwise it is the text. Both return 0 once they have text; the
// threshold reader returns -1 for null or empty filedata.
int zxbt_read_rule_file(ZXAppRules &app, const char *filedata);
int zxbt_read_threshold_file(ZXAppRules &app, const char *filedata);
// The same with the choice made by the caller (start-up reads paths): the
// rule reader fails only without memory (no_memory, the rules in force
// stay), the threshold reader for null or empty filedata (bad_input).
zx::Status zxbt_read_rule_file_ex(ZXAppRules &app, const char *filedata, bool is_path);
zx::Status zxbt_read_threshold_file_ex(ZXAppRules &app, const char *filedata, bool is_path);

// "BTErrorRules": lines "<code>|<flag>" or "<from>-<to>|<flag>", "#"
// comments; flag "F" marks the codes as errors. A read replaces the table;
// null filedata is bad_input.
zx::Status zxbt_read_error_rules(ZXAppRules &app, const char *filedata);

// The file-based keyword reader of rows 0 (rule file), 1 (threshold file)
// and 2 (error rules); registered by ZXBTConfigModelInit. `app` must be a
// whole application object (at least the rules layer).
void zxbtFileKeywordReader(ZXAppSettings &app, char *value, char *keyword, int index);

// Parses the default global rule into the set in force when no family is
// set ("Setting defult BT rule = %s").
void zxbt_apply_default_global_rule(ZXAppRules &app);

// Clears both BT maps and the id counter, starts the BT monitor, registers
// the file-keyword readers and reads "<home>/BTThresholdFile.txt" and
// "<home>/BTRuleFile.txt", then applies the default global rule when no rule
// family was set. 0.
int ZXBTConfigModelInit(ZXAppRules &app);

// Line parsers over the set being built. 0 accepted, -1 rejected; the two
// number setters return the value now in force.
int parse_pattern_rule(ZXAppRules &app, ZXBTRuleSet &rules, const char *line,
                       int *init_state_machine);
int parse_global_rule(ZXBTRuleSet &rules, const char *data);
int parse_custom_rule(ZXBTRuleSet &rules, const char *data);
int parse_exclusion_rule(const char *line);
int parse_skip_character(ZXAppRules &app, const char *line);
int parse_max_state(ZXAppRules &app, const char *line);
int parse_header_rule(ZXBTRuleSet &rules, const char *line);

// Keyword criteria (rule modes 2 and 3). The URI form returns the operation
// code, or 255 for an invalid criterion.
char updateUriMatchCriteria(ZXBTCustomRule &rule, const char *criterion);
std::shared_ptr<const URIParamObject> updateParameterListForMatchCriteria(const char *criterion);

// Entry points of the method-data, response-header, request-header and body
// BT rules (kinds 8 to 11). Those families are not applied by this agent
// core: the lines are accepted and traced.
int parseMethodDataBtRule(const char *line);
int parseRespHeaderDataBtRule(const char *line);
int parseReqHeaderDataBtRule(const char *line);
int parseHttpBodyBtName(const char *line);
