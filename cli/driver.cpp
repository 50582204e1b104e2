// The run: parse, select, check, connect, send, answer.

#include "driver.h"

#include "broken_pipe.h"
#include "command_table.h"
#include "connection.h"
#include "help_text.h"
#include "options.h"
#include "platform_support.h"
#include "safe_allocation.h"

#include <malloc.h>

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

// With a buffer of its own, standard output needs neither a file status nor an allocation for its first byte, and the
// help text leaves in one write unless the program's name is very long.
static void BufferStandardOutput()
{
    static char buffer[8192];
    setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
}

// Both allocations come fresh from the system, zero already; glibc clears what it takes from a heap grown in advance.
static char *AllocateList()
{
    return static_cast<char *>(PLAX_SafeCalloc(kUuidListCapacity, sizeof(char)));
}

QRT_ReturnStatus RunTool(int argumentCount, char **arguments)
{
    mallopt(M_TOP_PAD, 0); // grow the heap as asked, not in advance (see AllocateList)
    CommandSettings settings;
    settings.destinationList = AllocateList();
    settings.exclusionList = AllocateList();
    BufferStandardOutput();
    const QRT_ReturnStatus status = RunCommand(argumentCount, arguments, &settings);
    free(settings.destinationList);
    free(settings.exclusionList);
    return status;
}
