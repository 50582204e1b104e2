// Prints the tables as text, for the tests to compare.

#include "command_table.h"
#include "option_table.h"
#include "work_items.h"

#include <iostream>

static const char *ReplyClassName(ReplyClass replyClass)
{
    switch (replyClass) {
    case ReplyClass::Printed:
        return "printed";
    case ReplyClass::Checked:
        return "checked";
    case ReplyClass::None:
        return "none";
    case ReplyClass::Streamed:
        return "streamed";
    case ReplyClass::StreamedForAllObjects:
        return "streamed for all objects";
    }
    __builtin_unreachable();
}

int main()
{
    std::ostream &out = std::cout;
    for (const CommandRow &row : kCommands) {
        out << "command\t" << static_cast<uint32_t>(row.code) << '\t' << row.word << '\t' << row.receiveTimeoutSec
            << '\t' << ReplyClassName(row.replyClass) << '\t' << (row.help == nullptr ? "" : row.help) << '\n';
    }
    for (const OptionRow &row : kOptions) {
        out << "option\t" << row.letter << '\t' << row.longName << '\t' << row.argumentName << '\t' << row.synopsis
            << row.help << '\n';
    }
    for (const WorkItem &item : kWorkItems) {
        out << "work item\t" << item.name << '\n';
    }
    out.flush();
    return out ? 0 : 1;
}
