// record_tour - a short walk through records and the value types they carry:
// build a record with every value type and a nested record, print it, read
// values back by name and by path, copy it and change the copy, and print a
// local time with summer time and an OBIS code in all its forms.
#include <orvo.h>

#include <cstdio>

using namespace orvo;

static void PrintBytes(const cRecord& rec)
{
    const unsigned char* p = reinterpret_cast<const unsigned char*>(rec.GetBuffer());
    for (int i = 0; i < rec.GetSize(); ++i)
        std::printf("%02X%s", p[i], (i + 1) % 16 == 0 ? "\n  " : " ");
    std::printf("\n");
}

int main()
{
    cTime when;
    when.Create(2024, 3, 31, 0, 59, 59, 250);
    cUuid id;
    id.Create("54457667-3223-0000-0000-00000000ABCD");
    cObis energy("1-0:1.8.0*255");
    const unsigned char serial[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                      0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};

    cRecord port;
    port.AppendTextPar("device", "/dev/ttyS1");
    port.AppendUIntPar("baud", 9600);

    cRecord meter;
    meter.AppendTextPar("name", "MAIN METER");
    meter.AppendSIntPar("offset", -1);
    meter.AppendUIntPar("count", 300);
    meter.AppendSInt64Par("delta", -5000000000LL);
    meter.AppendUInt64Par("total", 18000000000000ULL);
    meter.AppendBoolPar("active", true);
    meter.AppendTimePar("read-at", when);
    meter.AppendUuidPar("id", id);
    meter.AppendDataPar("serial", serial, sizeof serial);
    meter.AppendObisPar("register", energy);
    meter.AppendEmtpyPar("comment", RECORD_TEXT);
    meter.AppendRecordPar("port", port);

    std::printf("text form:\n  %s\n\n", meter.ToString().c_str());
    std::printf("indented form:\n%s\n", meter.ToString2().c_str());
    std::printf("bytes (%i):\n  ", meter.GetSize());
    PrintBytes(meter);

    std::printf("\nread back by name:\n");
    std::printf("  offset = %i, count = %u, delta = %lld, active = %s\n",
                meter.GetFirstPar("offset").GetSInt(), meter.GetFirstPar("count").GetUInt(),
                meter.GetFirstPar("delta").GetSInt64(),
                meter.GetFirstPar("active").GetBool() ? "true" : "false");
    std::printf("  read-at = %s, register = %s\n", meter.GetFirstPar("read-at").GetTime().ToString().c_str(),
                meter.GetFirstPar("register").GetText());
    std::printf("read back by path:\n  port.baud = %u\n",
                meter.GetFirstParByPath("port.baud", ".").GetUInt());

    cRecord copy = meter;  // shares the bytes
    std::printf("\ncopy shares the bytes: %s\n",
                copy.GetBuffer() == meter.GetBuffer() ? "yes" : "no");
    copy.SetUIntPar("count", 301);  // copy on write
    std::printf("after changing the copy: original count = %u, copy count = %u, shared = %s\n",
                meter.GetFirstPar("count").GetUInt(), copy.GetFirstPar("count").GetUInt(),
                copy.GetBuffer() == meter.GetBuffer() ? "yes" : "no");

    std::printf("\ntime:\n");
    for (int second : {0, 1}) {
        cTime utc;
        utc.Create(2024, 3, 31, second == 0 ? 0 : 1, second == 0 ? 59 : 0, second == 0 ? 59 : 0, 0);
        unsigned int hours = 0;
        cTime local = utc;
        local.ToLocalTime(1, true, &hours);
        std::printf("  %s UTC -> %s local (+%u h%s)\n", utc.ToISO8601String().c_str(),
                    local.ToString().c_str(), hours, local.IsSummerTime() ? ", summer time" : "");
    }

    std::printf("\nOBIS code:\n  text %s, number 0x%012llX, short %s, complete %s\n",
                energy.ToString().c_str(), energy.ToNumber(), energy.Short.ToString().c_str(),
                energy.IsValid() ? "yes" : "no");
    cObis fromNumber;
    fromNumber.FromNumber(0x0100020800FFULL);
    std::printf("  from number 0x0100020800FF: %s\n", fromNumber.ToString().c_str());
    return 0;
}
