// The smallest client with the system calls of a workload: no option parsing and no stdio. The tool's cost above this
// is the cost of its features.
//
//     yardstick-client SOCKET KIND CODE REQUEST_LENGTH [FILE]
//
// KIND: p reads one frame and prints its payload, c reads one frame, s copies the stream to standard output or FILE.
//     yardstick-client h    writes a help text of the tool's length
//     yardstick-client u    writes a message of the tool's length and the help text
#include <arpa/inet.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

enum {
    kChunkSize = 1023,
    kHelpLength = 4298,
    kMessageLength = 31,
    kRequestSizeMax = 189464,
    kSmallReplySize = 1 << 16
};

static const char kText[kHelpLength] = {'u'};
static char requestMemory[kRequestSizeMax];
static char smallReply[kSmallReplySize];
static char chunk[kChunkSize];

static int Connect(const char *path)
{
    const int connection = socket(AF_UNIX, SOCK_STREAM, 0);
    const struct timeval timeout = {20, 0};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    if (connect(connection, (const struct sockaddr *)&address, sizeof address) < 0) {
        _exit(1);
    }
    return connection;
}

static int ReceiveFrame(int connection, int print)
{
    uint32_t header[2];
    if (recv(connection, header, sizeof header, MSG_WAITALL) != sizeof header) {
        return 1;
    }
    const size_t length = ntohl(header[1]);
    char *reply = length <= sizeof smallReply ? smallReply : malloc(length);
    if (length != 0 && recv(connection, reply, length, MSG_WAITALL) != (ssize_t)length) {
        return 1;
    }
    if (print && (write(STDOUT_FILENO, reply, length) < 0 || write(STDOUT_FILENO, "\n", 1) < 0)) {
        return 1;
    }
    return (int)ntohl(header[0]);
}

static int CopyStream(int connection, int output)
{
    ssize_t count;
    while ((count = read(connection, chunk, sizeof chunk)) > 0) {
        if (write(output, chunk, (size_t)count) < 0) {
            return 1;
        }
    }
    return count < 0;
}

static int Exchange(int argc, char **argv)
{
    const int connection = Connect(argv[1]);
    const uint32_t length = (uint32_t)strtoul(argv[4], NULL, 10);
    const uint32_t header[2] = {htonl((uint32_t)strtoul(argv[3], NULL, 10)), htonl(length)};
    send(connection, header, sizeof header, 0);
    if (length != 0) {
        send(connection, requestMemory, length, 0);
    }
    if (argv[2][0] == 's') {
        const int output = argc > 5 ? open(argv[5], O_WRONLY | O_CREAT | O_TRUNC, 0666) : STDOUT_FILENO;
        return CopyStream(connection, output);
    }
    return ReceiveFrame(connection, argv[2][0] == 'p');
}

static int WriteText(char kind)
{
    const int failed = kind == 'u' && write(STDERR_FILENO, kText, kMessageLength) < 0;
    return write(STDOUT_FILENO, kText, kHelpLength) < 0 || failed || kind == 'u';
}

int main(int argc, char **argv)
{
    if (argc != 2 && argc < 5) {
        return 2;
    }
    return argc == 2 ? WriteText(argv[1][0]) : Exchange(argc, argv);
}
