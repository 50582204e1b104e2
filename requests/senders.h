// One sender for each payload shape. A sender builds the payload of `invocation`, sends it with the command's code, and
// returns what SendCommand returns.
#ifndef PLAX_REQUESTS_SENDERS_H
#define PLAX_REQUESTS_SENDERS_H

#include "invocation.h"
#include "return_status.h"

QRT_ReturnStatus SendHeaderOnly(const Invocation &invocation);
QRT_ReturnStatus SendUuidText(const Invocation &invocation);
QRT_ReturnStatus SendJson(const Invocation &invocation);
QRT_ReturnStatus SendLogLevel(const Invocation &invocation);
QRT_ReturnStatus SendProactiveRebalance(const Invocation &invocation);
QRT_ReturnStatus SendWhatIfEntityDecom(const Invocation &invocation);
QRT_ReturnStatus SendWhatIfUpgrade(const Invocation &invocation);
QRT_ReturnStatus SendForceReconfigure(const Invocation &invocation);
QRT_ReturnStatus SendFilePath(const Invocation &invocation);
QRT_ReturnStatus SendRecoveryMode(const Invocation &invocation);
QRT_ReturnStatus SendWorkItem(const Invocation &invocation);
QRT_ReturnStatus SendCrawlerState(const Invocation &invocation);
QRT_ReturnStatus SendComponentManualMove(const Invocation &invocation);
QRT_ReturnStatus SendGlobalExclusionList(const Invocation &invocation);

// Finds the event and entry words among the arguments from the argument index to the end, for the callback-block
// request. Of several words of one kind the last counts, none counts as 0, other words are skipped. With argument index
// 0 the whole vector is searched, program name and options included.
QRT_ReturnStatus SendBlockCdbCbCommand(const Invocation &invocation);

#endif
