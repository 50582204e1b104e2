// One writer for each shell, and one for the tables themselves. Each writes a whole file to the stream.
#ifndef PLAX_COMPLETIONS_SHELLS_H
#define PLAX_COMPLETIONS_SHELLS_H

#include <iosfwd>

void WriteBash(std::ostream &out);
void WriteZsh(std::ostream &out);
void WriteFish(std::ostream &out);

// Writes what the tables hold, unlisted commands included: a line for each row, its fields separated by tabs. The
// manual page and the completions are compared with it.
void WriteTables(std::ostream &out);

#endif
