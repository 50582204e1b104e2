// The run: parse, select, check, connect, send, answer.

#include "driver.h"

#include "broken_pipe.h"
#include "command_table.h"
#include "connection.h"
#include "help_text.h"
#include "options.h"
#include "platform_support.h"
#include "records.h"
#include "safe_allocation.h"

#include <cstdio>

// Returns the row of the command word, which stands where option parsing has left `optind`, or reports why there is
// none and returns null.
static const CommandRow *SelectCommand(int argumentCount, char *const *arguments)
{
    if (optind >= argumentCount) {
        Warning("Command string missing\n");
        return nullptr;
    }
    const CommandRow *command = FindCommand(arguments[optind]);
    if (command == nullptr) {
        Warning("Unrecognized command: %s\n", arguments[optind]);
    }
    return command;
}

static bool PassesRule(const CommandRow &command, const RuleInput &input)
{
    const char *message = command.rule == nullptr ? nullptr : command.rule(input);
    if (message != nullptr) {
        Warning("%s", message);
    }
    return message == nullptr;
}

static QRT_ReturnStatus FailWithUsage(const char *programName)
{
    PrintUsage(programName);
    return kStatusFailure;
}

static QRT_ReturnStatus RunCommand(int argumentCount, char **arguments, CommandSettings *settings)
{
    if (argumentCount < 2) {
        return FailWithUsage(arguments[0]);
    }
    const ParseOutcome parsed = ParseOptions(argumentCount, arguments, settings);
    if (parsed == ParseOutcome::HelpRequested) {
        PrintUsage(arguments[0]);
        return kStatusSuccess;
    }
    if (parsed == ParseOutcome::Failed) {
        return FailWithUsage(arguments[0]);
    }
    const CommandRow *command = SelectCommand(argumentCount, arguments);
    if (command == nullptr || !PassesRule(*command, {*settings, argumentCount, arguments})) {
        return FailWithUsage(arguments[0]);
    }
    const int socket = OpenDaemonConnection(settings->socketPath, command->receiveTimeoutSec);
    if (socket < 0) {
        return kStatusFailure;
    }
    IgnoreBrokenPipe();
    const int argumentIndex = optind + 1 < argumentCount ? optind + 1 : 0;
    const QRT_ReturnStatus sent =
        command->send({command->code, socket, *settings, argumentCount, arguments, argumentIndex});
    return HandleReply(command->replyClass, socket, sent, *settings);
}

// With a buffer of its own, standard output needs neither a file status nor an allocation for its first byte, and the
// help text leaves in one write unless the program's name is very long.
static void BufferStandardOutput()
{
    static char buffer[8192];
    setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
}

QRT_ReturnStatus RunTool(int argumentCount, char **arguments)
{
    static WhatIfUpgradeRequest whatIfUpgrade;
    auto *manualMove =
        static_cast<ComponentManualMoveRequest *>(PLAX_SafeCalloc(1, sizeof(ComponentManualMoveRequest)));
    BufferStandardOutput();
    CommandSettings settings;
    settings.whatIfUpgrade = &whatIfUpgrade;
    settings.manualMove = manualMove;
    const QRT_ReturnStatus status = RunCommand(argumentCount, arguments, &settings);
    free(manualMove);
    return status;
}
