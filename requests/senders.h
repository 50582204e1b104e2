// One sender for each payload shape. It builds the payload from `invocation`, sends it with the command's code, and
// returns the result of SendCommand.
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

// Searches the arguments from the argument index to the end for the event and entry words of a callback-block request.
// The last word of each kind takes effect; a kind without a word has code 0; other words are ignored. With argument
// index 0, the search covers the whole vector, program name and options included.
QRT_ReturnStatus SendBlockCdbCbCommand(const Invocation &invocation);

#endif
