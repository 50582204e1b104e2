// The argument rules: what a command needs before a connection is made. A rule returns null if it is met, otherwise the
// message for the user.
#ifndef PLAX_CLI_RULES_H
#define PLAX_CLI_RULES_H

#include "invocation.h"

const char *RequireUuidOrAll(const Invocation &invocation);
const char *RequireJson(const Invocation &invocation);
const char *RequireLogLevel(const Invocation &invocation);
const char *RequireUuidList(const Invocation &invocation);
const char *RequireRecoveryModeOrUuid(const Invocation &invocation);
const char *RequireWorkItem(const Invocation &invocation);
const char *RequireCallbackWords(const Invocation &invocation);
const char *RequireMoveTarget(const Invocation &invocation);
const char *RequireExclusionList(const Invocation &invocation);

#endif
