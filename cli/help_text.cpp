// The help text, made from the two tables at compile time except for the program's name.

#include "help_text.h"

#include "command_table.h"
#include "option_table.h"

#include <array>
#include <cstdio>
#include <string_view>

// Calls `append` with each piece of the text after the header.
template <typename Append>
static consteval void ForEachPiece(Append append)
{
    for (const CommandRow &row : kCommands) {
        if (row.help != nullptr) {
            append("   ");
            append(row.word);
            append("\t\t");
            append(row.help);
            append("\n");
        }
    }
    append("\noptions:\n");
    for (const char letter : kOptionHelpOrder) {
        append(FindOption(letter)->synopsis);
        append(FindOption(letter)->help);
        append("\n");
    }
}

static consteval size_t ListingLength()
{
    size_t length = 0;
    ForEachPiece([&length](std::string_view piece) { length += piece.size(); });
    return length;
}

static consteval auto MakeListing()
{
    std::array<char, ListingLength() + 1> listing{}; // the last character stays zero: the terminator
    char *end = listing.data();
    ForEachPiece([&end](std::string_view piece) {
        for (const char character : piece) {
            *end++ = character;
        }
    });
    return listing;
}

void PrintUsage(const char *programName)
{
    static constexpr auto kListing = MakeListing();
    printf("usage: %s <options> <cmd> <args>\n\ncommands:\n%s", programName, kListing.data());
}
