// An EEPROM image of arbitrary bytes (any length, so also a device that ends
// early) read through every accessor of the pattern, then written through the
// setters with values taken from the image.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "orvo_eeprom.h"

using namespace orvo;

namespace {

volatile size_t gSink;

void Use(bool ok, const std::string& v)
{
    gSink = gSink + ok + v.size() + (v.empty() ? 0 : static_cast<unsigned char>(v.back()));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The accessors print their diagnostics on standard output.
    (void)!std::freopen("/dev/null", "w", stdout);
    // On tmpfs when there is one: the accessors read and write the image a
    // few bytes at a time.
    const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    static std::string path = std::string(dir) + "/orvo_eeprom_fuzz_" + std::to_string(getpid());
    setenv("ORVO_EEPROM_DEVICE", path.c_str(), 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* path = getenv("ORVO_EEPROM_DEVICE");
    FILE* f = std::fopen(path, "wb");
    if (f == nullptr)
        return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);

    using tGet = bool (cEEPROM_Pattern::*)(std::string&);
    using tSet = bool (cEEPROM_Pattern::*)(const std::string&);
    static const tGet getters[] = {
        &cEEPROM_Pattern::getHardwareID, &cEEPROM_Pattern::getSoftwareID, &cEEPROM_Pattern::getSerialNumber,
        &cEEPROM_Pattern::getProdDate,   &cEEPROM_Pattern::getHardwareVersion, &cEEPROM_Pattern::getMacEth0,
        &cEEPROM_Pattern::getMacEth1,    &cEEPROM_Pattern::getKey,        &cEEPROM_Pattern::getFlag,
        &cEEPROM_Pattern::getOEM,        &cEEPROM_Pattern::getWbusAddr,   &cEEPROM_Pattern::getPwHash};
    static const tSet setters[] = {
        &cEEPROM_Pattern::setHardwareID, &cEEPROM_Pattern::setSoftwareID, &cEEPROM_Pattern::setSerialNumber,
        &cEEPROM_Pattern::setProdDate,   &cEEPROM_Pattern::setHardwareVersion, &cEEPROM_Pattern::setMacEth0,
        &cEEPROM_Pattern::setMacEth1,    &cEEPROM_Pattern::setKey,        &cEEPROM_Pattern::setFlag,
        &cEEPROM_Pattern::setOEM,        &cEEPROM_Pattern::setWbusAddr,   &cEEPROM_Pattern::setPwHash};

    cEEPROM_Pattern e;
    unsigned char version = 0;
    unsigned int osc = 0, boots = 0;
    Use(e.getVersion(version), std::string(1, static_cast<char>(version)));
    Use(e.getOsc(osc), std::to_string(osc));
    Use(e.getBootCount(boots), std::to_string(boots));
    std::string dump;
    Use(e.Dump(dump), dump);
    const std::string image(reinterpret_cast<const char*>(data), size);
    for (size_t i = 0; i < sizeof getters / sizeof getters[0]; ++i) {
        std::string v;
        Use((e.*getters[i])(v), v);
        Use((e.*setters[i])(image.substr(0, i * 5)), v);
    }
    Use(e.setOsc(osc + 1) && e.getOsc(osc), std::to_string(osc));
    char raw[8];
    Use(e.getData(static_cast<long>(size % 600), raw, static_cast<unsigned>(size % 9)), "");
    e.Close();
    unlink(path);
    return 0;
}
