// The argument rules: what a command must have been given before the daemon is bothered. A rule is a function that
// returns null when it is met, and otherwise the message for the user.
#ifndef PLAX_CLI_RULES_H
#define PLAX_CLI_RULES_H

#include "command_settings.h"

struct RuleInput {
    const CommandSettings &settings;
    int argumentCount;
    char *const *arguments; // as option parsing left it
};

const char *RequireUuidOrAll(const RuleInput &input);
const char *RequireJson(const RuleInput &input);
const char *RequireLogLevel(const RuleInput &input);
const char *RequireUuidList(const RuleInput &input);
const char *RequireRecoveryModeOrUuid(const RuleInput &input);
const char *RequireWorkItem(const RuleInput &input);
const char *RequireCallbackWords(const RuleInput &input);
const char *RequireMoveTarget(const RuleInput &input);
const char *RequireExclusionList(const RuleInput &input);

#endif
