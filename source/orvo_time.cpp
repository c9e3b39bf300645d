#define ORVO_SOURCE "orvo_time"
#include "orvo_time.h"

#include <sys/time.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "orvo_data.h"
#include "orvo_trace.h"

namespace orvo {

const int DayOfMonth[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

namespace {

std::atomic<cTime::tClockFunc> gClockOverride{nullptr};
std::atomic<tMsecClockFunc> gMsecClockOverride{nullptr};

bool IsLeapYear(int64_t year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// Days from 1970-01-01 to the given proleptic Gregorian date (month 1-12).
int64_t DaysFromCivil(int64_t y, int64_t m, int64_t d)
{
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

// Calendar fields (taken as UTC) to seconds. This gives exactly what a binary
// search over the signed 32-bit time values would: such a search compares
// year, month, day, hour and minute of each probe's gmtime breakdown with the
// wanted ones and its second with 0, so it finds the start of the wanted
// minute if and only if the fields name a real minute (no normalisation) that
// lies strictly inside (-2^31, 2^31); the wanted second is then added. A
// minute that cannot be found, or a sum that leaves the 32-bit range, is -1.
int32_t SecondsFromFields(const struct tm& t)
{
    const int64_t year = static_cast<int64_t>(t.tm_year) + 1900;
    // Outside these years no minute is inside the 32-bit range anyway; the
    // early exit keeps the arithmetic below small.
    if (year < 1901 || year > 2038)
        return -1;
    if (t.tm_mon < 0 || t.tm_mon > 11)
        return -1;
    int monthLength = DayOfMonth[t.tm_mon];
    if (t.tm_mon == 1 && !IsLeapYear(year))
        monthLength = 28;
    if (t.tm_mday < 1 || t.tm_mday > monthLength)
        return -1;
    if (t.tm_hour < 0 || t.tm_hour > 23 || t.tm_min < 0 || t.tm_min > 59)
        return -1;
    const int64_t minuteStart = DaysFromCivil(year, t.tm_mon + 1, t.tm_mday) * 86400 +
                                t.tm_hour * 3600 + t.tm_min * 60;
    if (minuteStart <= INT32_MIN || minuteStart > INT32_MAX)
        return -1;
    const int64_t result = minuteStart + t.tm_sec;
    if (result < INT32_MIN || result > INT32_MAX)
        return -1;
    return static_cast<int32_t>(result);
}

// strtol in base 10 kept to its low 16 bits, as the text form's reader does.
int ReadNumber16(const char* p, const char** end)
{
    char* e = nullptr;
    const long v = std::strtol(p, &e, 10);
    *end = e;
    return static_cast<uint16_t>(static_cast<unsigned long>(v) & 0xFFFFu);
}

}  // namespace

void SetMsecClockOverride(tMsecClockFunc func)
{
    gMsecClockOverride.store(func);
}

namespace {

long long ReadMsec(clockid_t id)
{
    const tMsecClockFunc clock = gMsecClockOverride.load();
    if (clock != nullptr)
        return clock();
    struct timespec ts;
    clock_gettime(id, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

ORVO_HOT long long GetMsecClock()
{
    return ReadMsec(CLOCK_MONOTONIC);
}

ORVO_HOT long long GetMsecClockCoarse()
{
    return ReadMsec(CLOCK_MONOTONIC_COARSE);
}

// ---- Construction ---------------------------------------------------------

cTime::cTime()
{
    ClearTm();
    std::memset(m_Binary, 0, sizeof m_Binary);
}

cTime::cTime(const cTime& other) : cObject(other)
{
    m_Seconds = other.m_Seconds;
    m_MicroSeconds = other.m_MicroSeconds;
    m_Tm = other.m_Tm;
    std::memcpy(m_Binary, other.m_Binary, sizeof m_Binary);
    m_SummerTime = other.m_SummerTime;
    m_Utc = other.m_Utc;
}

cTime::cTime(const char* text) : cTime()
{
    Create(text);
}

cTime& cTime::operator=(const cTime& other)
{
    if (this != &other) {
        cObject::operator=(other);
        m_Seconds = other.m_Seconds;
        m_MicroSeconds = other.m_MicroSeconds;
        m_Tm = other.m_Tm;
        std::memcpy(m_Binary, other.m_Binary, sizeof m_Binary);
        m_SummerTime = other.m_SummerTime;
        m_Utc = other.m_Utc;
    }
    return *this;
}

cTime::~cTime() = default;

void cTime::ClearTm()
{
    std::memset(&m_Tm, 0, sizeof m_Tm);
}

void cTime::SetClockOverride(tClockFunc func)
{
    gClockOverride.store(func);
}

// ---- Setting ----------------------------------------------------------------

cTime& cTime::Now(bool utc)
{
    const tClockFunc clock = gClockOverride.load();
    if (clock != nullptr) {
        const long long ms = clock();
        long long sec = ms / 1000;
        long long rest = ms % 1000;
        if (rest < 0) {
            rest += 1000;
            sec -= 1;
        }
        m_Seconds = static_cast<int32_t>(static_cast<uint32_t>(sec));
        m_MicroSeconds = static_cast<int32_t>(rest * 1000);
    } else {
        struct timeval tv;
        gettimeofday(&tv, nullptr);
        // The device's time_t is 32 bits; keep the same value on a 64-bit host.
        m_Seconds = static_cast<int32_t>(static_cast<uint32_t>(tv.tv_sec));
        m_MicroSeconds = static_cast<int32_t>(tv.tv_usec / 1000 * 1000);
    }
    SetTmTime(utc);
    return *this;
}

cTime& cTime::FromSeconds(unsigned long sec, bool utc)
{
    m_Seconds = sec >= 0x80000000UL ? 0x7FFFFFFF : static_cast<int32_t>(sec);
    m_MicroSeconds = 0;
    SetTmTime(utc);
    return *this;
}

cTime& cTime::FromMilliSeconds(unsigned long long ms, bool utc)
{
    m_Seconds = static_cast<int32_t>(static_cast<uint32_t>(ms / 1000));
    m_MicroSeconds = static_cast<int32_t>(ms % 1000) * 1000;
    SetTmTime(utc);
    return *this;
}

void cTime::SetTmTime(bool utc)
{
    m_Utc = utc;
    const time_t t = static_cast<time_t>(m_Seconds);
    struct tm result;
    std::memset(&result, 0, sizeof result);
    const bool ok = utc ? gmtime_r(&t, &result) != nullptr : localtime_r(&t, &result) != nullptr;
    if (ok)
        m_Tm = result;
    else
        ClearTm();
}

bool cTime::Create(int year, int month, int day, int hour, int minute, int second,
                   int millisecond)
{
    ClearTm();
    // Computed in 64 bits so that absurd arguments cannot overflow; they fail
    // the range checks of the search below.
    const int64_t tmYear = static_cast<int64_t>(year) - 1900;
    const int64_t tmMon = static_cast<int64_t>(month) - 1;
    m_Tm.tm_year = tmYear < INT32_MIN ? INT32_MIN : static_cast<int>(tmYear);
    m_Tm.tm_mon = tmMon < INT32_MIN ? INT32_MIN : static_cast<int>(tmMon);
    m_Tm.tm_mday = day;
    m_Tm.tm_hour = hour;
    m_Tm.tm_min = minute;
    m_Tm.tm_sec = second;
    m_Tm.tm_isdst = -1;
    m_Seconds = SecondsFromFields(m_Tm);
    m_MicroSeconds = static_cast<int32_t>(static_cast<uint32_t>(millisecond) * 1000u);
    SetTmTime(true);
    return m_Seconds != -1;
}

bool cTime::Create(const char* text)
{
    m_Seconds = 0;
    m_MicroSeconds = 0;
    ClearTm();
    if (text == nullptr)
        return false;

    struct tm t;
    std::memset(&t, 0, sizeof t);
    const char* p = text;
    const char* end = nullptr;
    t.tm_mday = ReadNumber16(p, &end);
    if (*end != '.')
        return false;
    const int month = ReadNumber16(end + 1, &end);
    if (*end != '.')
        return false;
    const int year = ReadNumber16(end + 1, &end);
    if (*end != ' ')
        return false;
    t.tm_hour = ReadNumber16(end + 1, &end);
    if (*end != ':')
        return false;
    t.tm_min = ReadNumber16(end + 1, &end);
    if (*end != ':')
        return false;
    t.tm_sec = ReadNumber16(end + 1, &end);
    int millisecond = 0;
    if (*end == '.')
        millisecond = ReadNumber16(end + 1, &end);

    t.tm_mon = month - 1;
    t.tm_year = year - 1900;
    t.tm_isdst = -1;
    m_Seconds = SecondsFromFields(t);
    m_MicroSeconds = millisecond * 1000;
    SetTmTime(true);
    return true;
}

bool cTime::Create(const std::string& text)
{
    return Create(text.c_str());
}

bool cTime::Create(const void* data, int size)
{
    if (data == nullptr || size != 8)
        return false;
    const unsigned char* b = static_cast<const unsigned char*>(data);
    unsigned long long value = 0;
    for (int i = 7; i >= 0; --i)
        value = (value << 8) | b[i];
    FromMilliSeconds(value, true);
    return true;
}

bool cTime::FromISO8601String(const std::string& text)
{
    FromMilliSeconds(0, true);
    ClearTm();

    std::string rest = text;
    bool utc = false;
    if (!rest.empty() && rest.back() == 'Z') {
        rest.pop_back();
        utc = true;
    }
    const std::vector<std::string> parts = cHelper::GetStringTokens(rest, "T");
    if (parts.size() != 2)
        return false;
    const std::vector<std::string> date = cHelper::GetStringTokens(parts[0], "-");
    if (date.size() != 3)
        return false;
    const std::vector<std::string> time = cHelper::GetStringTokens(parts[1], ":");
    if (time.size() != 3)
        return false;

    m_Tm.tm_year = static_cast<int>(static_cast<unsigned>(std::atoi(date[0].c_str())) - 1900u);
    m_Tm.tm_mon = static_cast<int>(static_cast<unsigned>(std::atoi(date[1].c_str())) - 1u);
    m_Tm.tm_mday = std::atoi(date[2].c_str());
    m_Tm.tm_hour = std::atoi(time[0].c_str());
    m_Tm.tm_min = std::atoi(time[1].c_str());
    m_Tm.tm_sec = std::atoi(time[2].c_str());
    m_Tm.tm_isdst = -1;
    m_MicroSeconds = 0;
    m_Seconds = SecondsFromFields(m_Tm);
    m_Utc = utc;
    if (utc)
        SetTmTime(true);
    return true;
}

// ---- Reading ----------------------------------------------------------------

unsigned long cTime::ToSeconds() const
{
    return static_cast<unsigned long>(static_cast<uint32_t>(m_Seconds));
}

long long cTime::ToMilliSeconds() const
{
    return static_cast<long long>(m_Seconds) * 1000 + m_MicroSeconds / 1000;
}

const void* cTime::GetBuffer() const
{
    uint64_t value = static_cast<uint64_t>(ToMilliSeconds());
    for (int i = 0; i < 8; ++i) {
        m_Binary[i] = static_cast<unsigned char>(value & 0xFF);
        value >>= 8;
    }
    return m_Binary;
}

std::string cTime::ToString() const
{
    return FormatString("%02i.%02i.%04i %02i:%02i:%02i.%03i", GetDay(), GetMonth(), GetYear(),
                        GetHour(), GetMinute(), GetSecond(), GetMilliSecond());
}

std::string cTime::ToDateString() const
{
    return FormatString("%02i.%02i.%04i", GetDay(), GetMonth(), GetYear());
}

std::string cTime::ToTimeString() const
{
    return FormatString("%02i:%02i:%02i.%03i", GetHour(), GetMinute(), GetSecond(),
                        GetMilliSecond());
}

std::string cTime::ToISO8601String() const
{
    return FormatString("%04i-%02i-%02iT%02i:%02i:%02i%s", GetYear(), GetMonth(), GetDay(),
                        GetHour(), GetMinute(), GetSecond(), m_Utc ? "Z" : "");
}

// ---- Comparison and arithmetic ------------------------------------------------

int cTime::Compare(const cTime& other) const
{
    if (m_Seconds != other.m_Seconds)
        return m_Seconds > other.m_Seconds ? 1 : -1;
    if (m_MicroSeconds != other.m_MicroSeconds)
        return m_MicroSeconds > other.m_MicroSeconds ? 1 : -1;
    return 0;
}

cTime cTime::operator-(const cTime& other) const
{
    cTime diff;
    diff.FromMilliSeconds(static_cast<unsigned long long>(ToMilliSeconds()) -
                              static_cast<unsigned long long>(other.ToMilliSeconds()),
                          true);
    return diff;
}

void cTime::AddSeconds(long sec)
{
    // 64-bit arithmetic so the range test itself cannot overflow, whatever
    // the width of long.
    const int64_t s = sec;
    bool allowed;
    if (s < 1)
        allowed = static_cast<int64_t>(static_cast<uint32_t>(m_Seconds)) >= -s;
    else
        allowed = 0x7FFFFFFF - static_cast<int64_t>(m_Seconds) >= s;
    if (!allowed) {
        ORVO_TRACE(UnitORVO, ERROR,
                   FormatString("AddSeconds() result out of range (this=%li, sec=%li)",
                                static_cast<long>(m_Seconds), sec));
        return;
    }
    const int64_t result = static_cast<int64_t>(m_Seconds) + s;
    // A negative sum only arises from an invalid (-1) value; FromSeconds
    // clamps it like any value of 2^31 and above.
    FromSeconds(result < 0 ? 0x80000000UL : static_cast<unsigned long>(result), true);
}

void cTime::AddMinutes(long minutes)
{
    AddSeconds(static_cast<long>(static_cast<unsigned long>(minutes) * 60UL));
}

void cTime::AddHours(long hours)
{
    AddMinutes(static_cast<long>(static_cast<unsigned long>(hours) * 60UL));
}

void cTime::AddDays(long days)
{
    AddHours(static_cast<long>(static_cast<unsigned long>(days) * 24UL));
}

cTime& cTime::ToLocalTime(int offsetHours, bool summerTime, unsigned int* appliedHours)
{
    m_SummerTime = false;
    AddHours(offsetHours);
    if (appliedHours != nullptr)
        *appliedHours = static_cast<unsigned int>(offsetHours);
    if (!summerTime)
        return *this;

    const int m = GetMonth();
    int d = GetDay();
    const int w = GetDayOfWheek();
    int h = GetHour();
    if (m < 3 || m > 10)
        return *this;

    // Before the switch moment of the month's last Sunday (02:00 standard
    // time) March is still standard time; from it on October is.
    bool standard;
    if (d < w || d - w <= 24 || (w == 0 && h <= 1))
        standard = m == 3;
    else
        standard = m == 10;
    if (standard)
        return *this;

    m_SummerTime = true;
    if (appliedHours != nullptr)
        *appliedHours += 1;
    int month = m;
    h += 1;
    if (h == 24) {
        h = 0;
        if (d == DayOfMonth[m - 1]) {
            month += 1;
            d = 1;
        } else {
            d += 1;
        }
    }
    Create(GetYear(), month, d, h, GetMinute(), GetSecond(), GetMilliSecond());
    return *this;
}

cTime& cTime::LocalTime(int offsetHours, bool summerTime, unsigned int* appliedHours)
{
    Now(true);
    return ToLocalTime(offsetHours, summerTime, appliedHours);
}

}  // namespace orvo
