// The recording: an answers file by which a stand-in answers each request as the daemon did.
#ifndef PLAX_STANDIN_RECORDER_H
#define PLAX_STANDIN_RECORDER_H

#include "answers.h"
#include "log.h"

#include <map>
#include <string>

namespace standin {

// Bytes of a reply, and when they came.
struct TimedBytes {
    SteadyTime time;
    std::string bytes;
};

class Recorder : public Witness {
public:
    // Throws if the file cannot be written.
    explicit Recorder(std::string path);

    void RequestCame(const LogEntry &entry, std::string_view bytes) override;
    void ReplySent(const LogEntry &entry, std::string_view bytes) override;
    void Ended(const LogEntry &entry) override;

    // Writes all exchanges that have ended: the whole file or nothing. Prints a message if that fails.
    void Write();
    // Whether the last file could not be written.
    [[nodiscard]] bool HasFailed() const
    {
        return failed_;
    }

private:
    using Json = nlohmann::ordered_json;

    // The place of an exchange among the answers, and what is known of it.
    struct Exchange {
        std::string key;
        std::string fields;
        size_t index = 0;
        SteadyTime came;
        std::vector<TimedBytes> reply;
    };

    [[nodiscard]] Json AnswerOf(const LogEntry &entry, Exchange *exchange);
    [[nodiscard]] Json PiecesOf(const std::vector<TimedBytes> &reply, SteadyTime start);
    [[nodiscard]] Json PayloadOf(const std::string &bytes);
    void WriteAll() const;

    std::string path_;
    Json commands_ = Json::object(); // of lists of answers, by command and by the fields of the request as a text
    std::map<std::string, std::string> payloads_; // those that are no text, by the names of their files
    std::map<uint64_t, Exchange> exchanges_;      // that have not ended, by their connections
    bool failed_ = false;
};

} // namespace standin

#endif
