// Parsing the command line into settings. Error messages name the option.
#ifndef PLAX_STANDIN_ARGUMENTS_H
#define PLAX_STANDIN_ARGUMENTS_H

#include "log_formats.h"

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace standin {

// What --strict counts as a failure.
enum class Strictness { Nothing, Violations, Warnings };

enum class Command { Serve, Relay, Rehearse, Decode };

struct Settings {
    Command command = Command::Serve;
    std::string socketPath;
    mode_t socketMode = 0600;
    std::string answersPath; // empty: the built-in answers
    std::string expectPath;  // empty: any requests
    std::string daemonPath = "/var/run/plaxd.uds";
    std::string requestPath; // of the bytes to decode
    std::string logPath = "-";
    std::string capturePath; // empty: no capture
    std::string recordPath;  // empty: no recording
    LogFormat format = LogFormat::Text;
    Strictness strict = Strictness::Nothing;
    std::vector<char *> script; // the words after "--", and a null
    bool socketOption = false;
    int readyDescriptor = -1; // gets a newline when clients can connect; -1: none
};

// Fills the settings. Returns an exit status if the run ends here: a help text or an error message was printed.
std::optional<int> ParseArguments(int argumentCount, char **arguments, Settings *settings);

} // namespace standin

#endif
