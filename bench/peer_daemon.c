// The fastest possible daemon: answers connections one after the other with prepared replies.
//
//     peer-daemon SOCKET LENGTH    replies of LENGTH bytes; code 1, and code 26 with the flag, get a stream of LENGTH
//
// Prints a line when it listens. Ends on SIGTERM.
#include <arpa/inet.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

enum { kPieceSize = 1 << 16, kStatsCode = 1 };

static char piece[kPieceSize];

static int SendAll(int connection, uint64_t length)
{
    while (length > 0) {
        const size_t size = length < sizeof piece ? (size_t)length : sizeof piece;
        const ssize_t sent = send(connection, piece, size, MSG_NOSIGNAL);
        if (sent <= 0) {
            return -1;
        }
        length -= (uint64_t)sent;
    }
    return 0;
}

static int ReadRequest(int connection, uint32_t *code)
{
    uint32_t header[2];
    if (recv(connection, header, sizeof header, MSG_WAITALL) != sizeof header) {
        return -1;
    }
    *code = ntohl(header[0]);
    static char rest[1 << 18];
    const size_t length = ntohl(header[1]);
    return length != 0 && recv(connection, rest, length, MSG_WAITALL) != (ssize_t)length ? -1 : 0;
}

static void Serve(int connection, uint64_t length)
{
    uint32_t code;
    if (ReadRequest(connection, &code) != 0) {
        return;
    }
    if (code != kStatsCode) {
        const uint32_t header[2] = {0, htonl((uint32_t)length)};
        send(connection, header, sizeof header, MSG_NOSIGNAL);
    }
    SendAll(connection, length);
}

int main(int argc, char **argv)
{
    if (argc != 3) {
        return 2;
    }
    memset(piece, 'x', sizeof piece);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    strncpy(address.sun_path, argv[1], sizeof address.sun_path - 1);
    unlink(argv[1]);
    if (bind(listener, (const struct sockaddr *)&address, sizeof address) < 0 || listen(listener, 4096) < 0) {
        perror(argv[1]);
        return 1;
    }
    puts("ready");
    fflush(stdout);
    for (;;) {
        const int connection = accept(listener, NULL, NULL);
        Serve(connection, strtoull(argv[2], NULL, 10));
        close(connection);
    }
}
