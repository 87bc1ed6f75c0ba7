// The collector's commands: every complete line of the control connection
// after the connection reply is recognised by its prefix and applied here,
// on the control thread of the application it is given. Replies go back on
// the control connection.
//
// A run's stop goes one way: the flowpaths still running are written out as
// incomplete first, then the data thread is told to flush and stop.
#pragma once

struct ZXAppControl;

// Applies one command line. The text may be changed in place.
void handleReceivedClientMessageFromZXCollector(ZXAppControl *app, char *message);

// The commands, exposed for their tests.
void handleStartInstrumentation(ZXAppControl *app, char *message);
void handleStopInstrumentationCase(ZXAppControl *app, char *message);
void handleStoppingCaseAtStopInstrumentCase(ZXAppControl *app, char *message);
void handleModifyMessage(ZXAppControl *app, char *message);
// Applies a modify's keywords and answers "zx_control_rep:action=modify;result=Ok;".
void handleRunTimeChangeCase(ZXAppControl *app, char *message);
void handleHeartbeatEcho(ZXAppControl *app, char *message);
void handleRerouteMessage(ZXAppControl *app, char *message);

// Start and stop of a run as the collector sees them.
void handleStartInstrumentationCase(ZXAppControl *app, char *message);
int sendResponseToZXC(ZXAppControl *app);
int sendResponseOfStopInstrumentation(ZXAppControl *app);

// Run flags and counters back to the state of a fresh run.
void setAllFlagAndCountVars(ZXAppControl *app);

// "zx_control_req:action=reroute_ctrl_con;zxcHost=<host>;zxcPort=<port>":
// the new collector. False when either is missing.
bool parseReRouteMessageAndUpdateClientInfo(ZXAppControl *app, const char *message);
// Rewrites the collector of the settings file ("zxcHost=" / "zxcPort="
// lines), keeping every other line. 0 on success.
int updateZXSettingFile(ZXAppControl *app, const char *host, int port);

// Writes the flowpaths still running as incomplete, when a data thread runs
// that has not been asked to stop yet (its stop flushes them). Call right
// before asking the data thread to stop.
void writeIncompleteFlowpathsAtStop(ZXAppControl *app);
