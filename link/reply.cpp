// The reply classes.

#include "reply.h"

#include "frame.h"
#include "platform_support.h"
#include "stream.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

// Commands whose reply has no status fail silently. The command that only streams with --all reports the failure in
// both forms.
static bool IsSendFailureReported(ReplyClass replyClass)
{
    return replyClass != ReplyClass::None && replyClass != ReplyClass::Streamed;
}

// Receives the reply and reports a status other than success. On success the caller owns *payload (null if empty). On
// failure the payload is released.
static QRT_ReturnStatus ReceiveAndReport(int socket, uint32_t *length, char **payload)
{
    const QRT_ReturnStatus status = ReceiveResponse(socket, length, payload);
    if (status != kStatusSuccess) {
        const char *reason = *payload != nullptr ? *payload : "(null)";
        Warning("Error received: %s: %s\n", QRT_ReturnStatusToString(status), reason);
        free(*payload);
    }
    return status;
}

static QRT_ReturnStatus CheckReply(int socket)
{
    uint32_t length = 0;
    char *payload = nullptr;
    return ReceiveAndReport(socket, &length, &payload);
}

static QRT_ReturnStatus PrintReply(int socket)
{
    uint32_t length = 0;
    char *payload = nullptr;
    const QRT_ReturnStatus status = ReceiveAndReport(socket, &length, &payload);
    if (status != kStatusSuccess) {
        return status;
    }
    // An empty reply is written as well, so that a closed standard output is noticed.
    if (write(STDOUT_FILENO, payload, length) < 0) {
        return ErrnoToStatus(errno);
    }
    putchar('\n');
    return kStatusSuccess;
}

QRT_ReturnStatus HandleReply(ReplyClass replyClass, int socket, QRT_ReturnStatus sendStatus,
                             const CommandSettings &settings)
{
    if (sendStatus != kStatusSuccess) {
        if (IsSendFailureReported(replyClass)) {
            Warning("Sending command failed: %s\n", QRT_ReturnStatusToString(sendStatus));
        }
        return sendStatus;
    }
    switch (replyClass) {
    case ReplyClass::Printed:
        return PrintReply(socket);
    case ReplyClass::Checked:
        return CheckReply(socket);
    case ReplyClass::None:
        return kStatusSuccess;
    case ReplyClass::Streamed:
        return StreamReply(socket, settings.outputPath);
    case ReplyClass::StreamedForAllObjects:
        break;
    }
    return settings.all != 0 ? StreamReply(socket, settings.outputPath) : PrintReply(socket);
}
