// Naming a request: runs the rule family in force over the request's URL,
// parameters, method and header and returns its BT object; and categorising
// a finished transaction.
//
// Runs on application threads at every transaction start. A request whose BT
// already exists takes no lock and allocates nothing: the rule set is read
// through a hazard pointer and the manager map lock-free. Only a new name
// takes the caller's updateBTLock and the manager lock.
#pragma once

#include <cstddef>

#include "zxbt_bt_object.h"
#include "zxbt_rule_parser.h"
#include "zxlb_apr.h"

struct ZXAppRules;

// The BT object of a request, or null (excluded, no object). btHeaderValue
// ("name=value&..." of the request's headers, may be null) is cut in place
// at the "&" after the global rule's header. updateBTLock (may be null) is
// held around the creation of a new BT.
BTObject *get_obj_from_bt_name(ZXAppRules &app, const char *url, const char *parameters,
                               char *btHeaderValue, zx::NestedMutex *updateBTLock,
                               const char *httpMethod);

// Family runners over the application's rule set in force: write the name
// into btName (size bytes, names cut to 255 characters) and return it, or
// null.
char *zxbt_execute_global_rule(ZXAppRules &app, const char *uri, const char *param,
                               const char *method, const char *header, char *btName,
                               std::size_t size);
char *zxbt_execute_custom_rule(ZXAppRules &app, const char *uri, const char *parameter,
                               const char *httpMethod, char *btName, std::size_t size);
// The pattern family runs inside get_obj_from_bt_name.
void zxbt_execute_pattern_rule();
void zxbt_execute_header_rule(ZXAppRules &app, const char *url, char *bt_name, std::size_t len);

// The same runners over a given rule set; `app` gates their trace lines.
char *zxbt_execute_global_rule(const ZXAppRules &app, const ZXBTRuleSet &rules, const char *uri,
                               const char *param, const char *method, const char *header,
                               char *btName, std::size_t size);
char *zxbt_execute_custom_rule(const ZXAppRules &app, const ZXBTRuleSet &rules, const char *uri,
                               const char *parameter, const char *httpMethod, char *btName,
                               std::size_t size);

// URI segments by the global rule's order and count.
void get_bt_name_from_url(const ZXAppRules &app, const ZXBTGlobalRule &g, const char *url,
                          char *btName, std::size_t len);
// The value of the global rule's parameter in `param`, or null.
std::unique_ptr<char[]> get_param_value(const ZXBTGlobalRule &g, const char *param);
// The global rule's header value in btHeaderValue (cut in place), or null.
char *getBtBaseOnHeader(const ZXBTGlobalRule *g, char *btHeaderValue);
// Copies the header rule's header name into buf; buf, or null without a
// header rule ("Header rule is not set, returning null").
char *getBTHeaderName(ZXAppRules &app, char *buf, std::size_t size);

// Category of a finished transaction: 13 when the status code is marked "F"
// in btErrorArray, else by its duration (ms) against the thresholds. A
// normal transaction becomes 0 when sessions instrument nothing
// (bciInstrSessionPct 0) and every flowpath captures methods
// (captureMethodForAllFP 1); its flowpath is then not captured: the
// per-thread flag tlIsFPCaptured (may be null) is cleared.
char findCategoryOfBT(const ZXAppRules &app, const Threshold &bt_threshold, long long duration,
                      int statusCode, char *tlIsFPCaptured);
char getBTCategoryBasedOnThresold(const ZXAppRules &app, char *tlIsFPCaptured,
                                  const Threshold &bt_threshold, long long duration);
