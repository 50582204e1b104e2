// The capture: every request and every reply with its time, in a file that Wireshark opens.
//
// The link type is DLT_USER0. A packet holds the length of a description in four bytes, big-endian, the description,
// and the bytes that were sent. The description has a line for each key, a tab and a value. It contains what the
// decoder has found, so the dissector needs no decoder of its own.
#ifndef PLAX_STANDIN_CAPTURE_H
#define PLAX_STANDIN_CAPTURE_H

#include "log.h"

#include <pcap/pcap.h>

#include <map>
#include <memory>
#include <string>

namespace standin {

class Capture : public Witness {
public:
    // Throws if the file cannot be written.
    explicit Capture(std::string path);

    void RequestCame(const LogEntry &entry, std::string_view bytes) override;
    void ReplySent(const LogEntry &entry, std::string_view bytes) override;
    void Ended(const LogEntry &entry) override;

    // Whether packets were lost. A message was printed.
    [[nodiscard]] bool HasFailed() const
    {
        return failed_;
    }

private:
    struct Packet {
        std::chrono::system_clock::time_point time;
        std::string bytes; // the first ones
        uint64_t length = 0;
    };
    struct Exchange {
        size_t violations; // that the request's packet has
        Packet reply;      // while it is not whole
    };

    void WriteReply(const LogEntry &entry, Packet *reply);
    void Write(const std::string &description, const Packet &packet);
    void Flush();

    std::string path_;
    std::unique_ptr<pcap_t, decltype(&pcap_close)> format_;
    std::unique_ptr<pcap_dumper_t, decltype(&pcap_dump_close)> file_;
    std::map<uint64_t, Exchange> exchanges_; // by their connections
    bool failed_ = false;
};

} // namespace standin

#endif
