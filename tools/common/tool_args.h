// tool_args.h - the command-line check every tool makes before the
// library's orvoParseArgs: the library keeps any option it does not know (its
// own rule for services), but a tool that silently ignored a typo such as
// "-lisen" would run with its default instead.
#pragma once

#include <orvo_init.h>

namespace orvo_tools {

// True when every word of argv that starts with "-" is an option of Table
// (or -h / -?) and, unless Positional, no other word stands where no option
// takes it. A word that follows an option and does not start with "-" is
// that option's value, as orvoParseArgs reads it. Otherwise prints
// "<tool>: unknown option '<word>' (-h lists the options)" on standard error
// and returns false: the caller exits with status 2.
bool CheckOptions(const char* tool, const orvo::tArg* table, int argc, char** argv, bool positional = false);

}  // namespace orvo_tools
