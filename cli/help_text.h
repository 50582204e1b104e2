// The help text, shown for -h and after every usage error.
#ifndef PLAX_CLI_HELP_TEXT_H
#define PLAX_CLI_HELP_TEXT_H

// Writes the help text for a program called `programName` to standard output.
void PrintUsage(const char *programName);

#endif
