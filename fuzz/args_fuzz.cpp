// Fuzzes orvoParseArgs: the input is split at NUL bytes into the words of a
// command line (the first is argv[0]). A second word of "-h" or "-?" would
// print the help and end the process, so such a word is replaced.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "orvo_init.h"
#include "orvo_record.h"

using namespace orvo;

namespace {

tArg kTable[] = {
    {nullptr, "#Fuzz", nullptr, nullptr},
    {"-port", "port", "4000", OnArg_Int},
    {"-v", "verbose", nullptr, OnArg_Bool},
    {"-w", "word", "abc", OnArg_Text},
    {"-", "empty key", nullptr, OnArg_Text},
    {"-n", "no handler", "1", nullptr},
    {nullptr, nullptr, nullptr, nullptr}};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // A command line of up to about 300 words. Each option replaces its
    // earlier value, a walk of the record, so longer inputs only made every
    // run quadratic without reaching new code.
    if (size > 1024)
        return 0;
    std::vector<std::string> words(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0)
            words.emplace_back();
        else
            words.back() += static_cast<char>(data[i]);
    }
    if (words.size() > 1 && (words[1] == "-h" || words[1] == "-?"))
        words[1] = "-x";
    std::vector<char*> argv;
    for (std::string& w : words)
        argv.push_back(&w[0]);
    argv.push_back(nullptr);

    GetConfig()->Create();
    orvoParseArgs(kTable, static_cast<int>(words.size()), argv.data());

    // Every word that is neither an option nor an option's value is stored
    // as arg_<n>, in order, and nothing more. A look-up walks the record, so
    // only the first and last few are checked: checking all of them made
    // each long input cost a quadratic walk.
    std::vector<const std::string*> positional;
    for (size_t i = 1; i < words.size(); ++i) {
        if (words[i].empty() || words[i][0] != '-')
            positional.push_back(&words[i]);
        else if (i + 1 < words.size() && (words[i + 1].empty() || words[i + 1][0] != '-'))
            ++i;
    }
    const size_t kEnds = 16;
    for (size_t n = 0; n < positional.size(); ++n) {
        if (n >= kEnds && n + kEnds < positional.size())
            continue;
        const std::string key = "arg_" + std::to_string(n);
        if (GetConfig()->GetFirstPar(key.c_str()).GetString() != *positional[n])
            std::abort();
    }
    const std::string next = "arg_" + std::to_string(positional.size());
    if (GetConfig()->GetFirstPar(next.c_str()).IsValid())
        std::abort();
    const std::string& exe = GetExeName();
    if (exe.find('.') != std::string::npos ||
        (!exe.empty() && !std::isalnum(static_cast<unsigned char>(exe[0]))))
        std::abort();
    return 0;
}
