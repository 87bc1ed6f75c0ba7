// The collector's commands: every complete line of the control connection
// after the connection reply is recognised by its prefix and applied here,
// on the control thread. Replies go back on the control connection.
#pragma once

// Applies one command line. The text may be changed in place.
void handleReceivedClientMessageFromZXCollector(char *message);

// The commands, exposed for their tests.
void handleStartInstrumentation(char *message);
void handleStopInstrumentationCase(char *message);
void handleStoppingCaseAtStopInstrumentCase(char *message);
void handleModifyMessage(char *message);
// Applies a modify's keywords and answers "zx_control_rep:action=modify;result=Ok;".
void handleRunTimeChangeCase(char *message);
void handleHeartbeatEcho(char *message);
void handleRerouteMessage(char *message);

// Start and stop of a run as the collector sees them.
void handleStartInstrumentationCase(char *message);
int sendResponseToZXC();
int sendResponseOfStopInstrumentation();

// Run flags and counters back to the state of a fresh run.
void setAllFlagAndCountVars();

// "zx_control_req:action=reroute_ctrl_con;zxcHost=<host>;zxcPort=<port>":
// the new collector. False when either is missing.
bool parseReRouteMessageAndUpdateClientInfo(const char *message);
// Rewrites the collector of the settings file ("zxcHost=" / "zxcPort="
// lines), keeping every other line. 0 on success.
int updateZXSettingFile(const char *host, int port);
