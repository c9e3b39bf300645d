// tool_args.cpp - see tool_args.h.
#include "tool_args.h"

#include <cstdio>
#include <cstring>

namespace orvo_tools {

namespace {

bool Known(const orvo::tArg* table, const char* word)
{
    if (std::strcmp(word, "-h") == 0 || std::strcmp(word, "-?") == 0)
        return true;
    for (const orvo::tArg* row = table;
         row->name != nullptr || row->description != nullptr || row->def != nullptr || row->handler != nullptr;
         ++row)
        if (row->name != nullptr && std::strcmp(row->name, word) == 0)
            return true;
    return false;
}

}  // namespace

bool CheckOptions(const char* tool, const orvo::tArg* table, int argc, char** argv, bool positional)
{
    for (int i = 1; i < argc; ++i) {
        const char* word = argv[i];
        if (word == nullptr)
            continue;
        if (word[0] != '-') {
            if (positional)
                continue;
            std::fprintf(stderr, "%s: unexpected argument '%s' (-h lists the options)\n", tool, word);
            return false;
        }
        if (!Known(table, word)) {
            std::fprintf(stderr, "%s: unknown option '%s' (-h lists the options)\n", tool, word);
            return false;
        }
        if (i + 1 < argc && argv[i + 1] != nullptr && argv[i + 1][0] != '-')
            ++i;    // its value
    }
    return true;
}

}  // namespace orvo_tools
