// One handler for each option, named in the option's row. OptionHandler describes parameters and result.
#ifndef PLAX_CLI_OPTION_HANDLERS_H
#define PLAX_CLI_OPTION_HANDLERS_H

#include "options.h"

ParseOutcome RequestHelp(const char *argument, CommandSettings *settings);
ParseOutcome SetOutputPath(const char *argument, CommandSettings *settings);
ParseOutcome SetSocketPath(const char *argument, CommandSettings *settings);
ParseOutcome CheckTimeout(const char *argument, CommandSettings *settings);
ParseOutcome SetUuid(const char *argument, CommandSettings *settings);
ParseOutcome SetUuidList(const char *argument, CommandSettings *settings);
ParseOutcome SetJson(const char *argument, CommandSettings *settings);
ParseOutcome SetFilePath(const char *argument, CommandSettings *settings);
ParseOutcome SetDecomMode(const char *argument, CommandSettings *settings);
ParseOutcome SetEnsureDurability(const char *argument, CommandSettings *settings);
ParseOutcome SetReason(const char *argument, CommandSettings *settings);
ParseOutcome SetWorkItem(const char *argument, CommandSettings *settings);
ParseOutcome SetRecoveryMode(const char *argument, CommandSettings *settings);
ParseOutcome SetWipeDisk(const char *argument, CommandSettings *settings);
ParseOutcome SetAll(const char *argument, CommandSettings *settings);
ParseOutcome SetDestinationList(const char *argument, CommandSettings *settings);
ParseOutcome SetExclusionList(const char *argument, CommandSettings *settings);
ParseOutcome SetExclusionMode(const char *argument, CommandSettings *settings);

#endif
