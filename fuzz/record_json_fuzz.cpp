// The JSON form of records (tools/orvo-scm/record_json.cpp) on arbitrary
// input, read two ways: as record bytes, which must come back unchanged
// through JSON; and as JSON text, which, when accepted, must print back as
// the same JSON. The same text as orvo-scm's configuration file: a refused
// file leaves the loaded one as it was.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "record_json.h"
#include "scm_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace orvo_tools;
    const tJson fromBytes = RecordBytesToJson(data, size);
    orvo::cRecord back;
    std::string error;
    if (!JsonToRecord(fromBytes, back, error))
        abort();   // every byte sequence has a JSON form that reads back
    const size_t backSize = back.IsEmpty() ? 0 : static_cast<size_t>(back.GetSize());
    if (backSize != size || (size != 0 && std::string(back.GetBuffer(), size) !=
                                              std::string(reinterpret_cast<const char*>(data), size)))
        abort();

    tJson json;
    if (ParseJson(std::string(reinterpret_cast<const char*>(data), size), json, error) &&
        JsonToRecord(json, back, error) && RecordToJson(back) != json)
        abort();   // accepted JSON prints back as itself

    orvo_scm::tScmFile file;
    file.services.resize(1);
    file.services[0].name = "kept";
    if (!orvo_scm::ParseScmFile(std::string(reinterpret_cast<const char*>(data), size), file, error) &&
        (file.services.size() != 1 || file.services[0].name != "kept" || error.empty()))
        abort();
    return 0;
}
