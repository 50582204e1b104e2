// The run: parse, select, check, connect, send, answer.

#include "driver.h"

#include "broken_pipe.h"
#include "command_table.h"
#include "connection.h"
#include "help_text.h"
#include "options.h"
#include "platform_support.h"
#include "safe_allocation.h"

#include <cstdio>
#include <cstdlib>

// Returns the row of the command word, to which option parsing has set `optind`, or reports the error and returns null.
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

static bool PassesRule(const CommandRow &command, const Invocation &invocation)
{
    const char *message = command.rule == nullptr ? nullptr : command.rule(invocation);
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
    if (command == nullptr) {
        return FailWithUsage(arguments[0]);
    }
    const int argumentIndex = optind + 1 < argumentCount ? optind + 1 : 0;
    Invocation invocation{command->code, *settings, argumentCount, arguments, argumentIndex, -1};
    if (!PassesRule(*command, invocation)) {
        return FailWithUsage(arguments[0]);
    }
    invocation.socket = OpenDaemonConnection(settings->socketPath, command->receiveTimeoutSec);
    if (invocation.socket < 0) {
        return kStatusFailure;
    }
    IgnoreBrokenPipe();
    const QRT_ReturnStatus sent = command->send(invocation);
    return HandleReply(command->replyClass, invocation.socket, sent, *settings);
}

// A buffer of our own saves standard output a file status and an allocation, and has space for the whole help text.
static void BufferStandardOutput()
{
    static char buffer[8192];
    setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
}

QRT_ReturnStatus RunTool(int argumentCount, char **arguments)
{
    // Both buffers in one allocation, which is large enough for the C library to take fresh zero pages for it.
    auto *lists = static_cast<char *>(PLAX_SafeCalloc(2, kUuidListCapacity));
    CommandSettings settings;
    settings.destinationList = lists;
    settings.exclusionList = lists + kUuidListCapacity;
    BufferStandardOutput();
    const QRT_ReturnStatus status = RunCommand(argumentCount, arguments, &settings);
    free(lists);
    return status;
}
