// One sender for each payload shape. A sender builds the payload of `request`, sends it with the request's code, and
// returns what SendCommand returns.
#ifndef PLAX_REQUESTS_SENDERS_H
#define PLAX_REQUESTS_SENDERS_H

#include "request.h"
#include "return_status.h"

QRT_ReturnStatus SendHeaderOnly(const Request &request);
QRT_ReturnStatus SendUuidText(const Request &request);
QRT_ReturnStatus SendJson(const Request &request);
QRT_ReturnStatus SendLogLevel(const Request &request);
QRT_ReturnStatus SendProactiveRebalance(const Request &request);
QRT_ReturnStatus SendWhatIfEntityDecom(const Request &request);
QRT_ReturnStatus SendWhatIfUpgrade(const Request &request);
QRT_ReturnStatus SendForceReconfigure(const Request &request);
QRT_ReturnStatus SendFilePath(const Request &request);
QRT_ReturnStatus SendRecoveryMode(const Request &request);
QRT_ReturnStatus SendWorkItem(const Request &request);
QRT_ReturnStatus SendCrawlerState(const Request &request);
QRT_ReturnStatus SendCallbackBlock(const Request &request);
QRT_ReturnStatus SendComponentManualMove(const Request &request);
QRT_ReturnStatus SendGlobalExclusionList(const Request &request);

#endif
