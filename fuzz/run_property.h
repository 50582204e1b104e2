// The properties of every run, for any command line: a usage error makes no connection. Otherwise the request
// decodes without a violation, and its fields are the settings that the options and words ask for.
#ifndef PLAX_FUZZ_RUN_PROPERTY_H
#define PLAX_FUZZ_RUN_PROPERTY_H

#include "harness.h"

// Runs the tool with this argument vector, which holds at least the program's name. Stops with a finding.
void CheckRun(const Surroundings &surroundings, const std::vector<std::string> &words);

#endif
