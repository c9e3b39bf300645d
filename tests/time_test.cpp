// cTime: calendar arithmetic against the C library's timegm/gmtime_r, local
// time against the system's zone rules, text and binary forms.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "orvo_time.h"
#include "orvo_trace.h"

using namespace orvo;

namespace {

// Oracle for the calendar search: the fields must survive timegm/gmtime_r
// unchanged (no normalisation), the minute must start strictly inside
// (-2^31, 2^31) and the final value must fit in 32 bits.
long long Expected(int year, int month, int day, int hour, int minute, int second)
{
    struct tm t = {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    errno = 0;
    const time_t start = timegm(&t);   // normalises t in place
    if (start == static_cast<time_t>(-1) && errno == EOVERFLOW)
        return -1;
    struct tm back = {};
    gmtime_r(&start, &back);
    if (back.tm_year != year - 1900 || back.tm_mon != month - 1 || back.tm_mday != day ||
        back.tm_hour != hour || back.tm_min != minute)
        return -1;
    const long long s = static_cast<long long>(start);
    if (s <= INT32_MIN || s > INT32_MAX || s + second > INT32_MAX)
        return -1;
    return s + second;
}

void ExpectCreate(int y, int mo, int d, int h, int mi, int s)
{
    cTime t;
    const long long want = Expected(y, mo, d, h, mi, s);
    const bool ok = t.Create(y, mo, d, h, mi, s, 0);
    const long long got = static_cast<int32_t>(static_cast<uint32_t>(t.ToSeconds()));
    ASSERT_EQ(got, want) << y << "-" << mo << "-" << d << " " << h << ":" << mi << ":" << s;
    EXPECT_EQ(ok, want != -1);
    if (want != -1 && s < 60) {
        EXPECT_EQ(t.GetYear() * 10000 + t.GetMonth() * 100 + t.GetDay(), y * 10000 + mo * 100 + d);
    }
}

long long gFakeNow = 0;
long long FakeClock() { return gFakeNow; }

}  // namespace

TEST(TimeTest, CalendarSearchAgreesWithTimegm)
{
    // The 32-bit ends, a century leap day the random run rarely meets, and a
    // second that is added unchecked. Invalid months, days and hours come from
    // the random run below.
    ExpectCreate(2038, 1, 19, 3, 14, 7);    // 0x7FFFFFFF
    ExpectCreate(2038, 1, 19, 3, 14, 8);    // one past
    ExpectCreate(1901, 12, 13, 20, 46, 0);
    ExpectCreate(1901, 12, 13, 20, 45, 52); // -2^31: its minute starts outside
    ExpectCreate(1970, 1, 1, 0, 0, 0);
    ExpectCreate(2000, 2, 29, 0, 0, 0);
    ExpectCreate(2024, 3, 5, 10, 15, 75);

    std::mt19937 rng(12345);
    const bool wideTime = sizeof(time_t) > 4;
    for (int i = 0; i < 20000; ++i) {
        const int y = wideTime ? 1895 + static_cast<int>(rng() % 150) : 1902 + static_cast<int>(rng() % 136);
        ASSERT_NO_FATAL_FAILURE(ExpectCreate(
            y, static_cast<int>(rng() % 14), static_cast<int>(rng() % 33),
            static_cast<int>(rng() % 25), static_cast<int>(rng() % 61), static_cast<int>(rng() % 60)));
    }
    // Every breakdown produced by gmtime_r must come back to its seconds.
    for (int i = 0; i < 20000; ++i) {
        const time_t s = static_cast<int32_t>(rng());
        struct tm t = {};
        gmtime_r(&s, &t);
        cTime c;
        c.Create(t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, 5);
        const bool reachable = static_cast<long long>(s) - t.tm_sec > INT32_MIN;
        ASSERT_EQ(c.ToMilliSeconds(), reachable ? static_cast<long long>(s) * 1000 + 5 : -995);
    }
}

TEST(TimeTest, TextForms)
{
    cTime t;
    EXPECT_EQ(t.ToString(), "00.01.1900 00:00:00.000");   // fields not derived yet
    ASSERT_TRUE(t.Create(2024, 3, 5, 10, 15, 42, 123));
    EXPECT_EQ(t.ToString(), "05.03.2024 10:15:42.123");
    EXPECT_EQ(t.ToDateString(), "05.03.2024");
    EXPECT_EQ(t.ToTimeString(), "10:15:42.123");
    EXPECT_EQ(t.ToISO8601String(), "2024-03-05T10:15:42Z");
    EXPECT_EQ(t.GetDayOfWheek(), 2);  // a Tuesday

    cTime p;
    EXPECT_TRUE(p.Create("05.03.2024 10:15:42"));
    EXPECT_EQ(p.ToString(), "05.03.2024 10:15:42.000");
    EXPECT_TRUE(p.Create(std::string("05.03.2024 10:15:42.7")));
    EXPECT_EQ(p.GetMilliSecond(), 7);
    EXPECT_EQ(p.ToSeconds(), t.ToSeconds());
    EXPECT_FALSE(p.Create("05-03-2024 10:15:42"));
    EXPECT_EQ(p.ToMilliSeconds(), 0);
    EXPECT_FALSE(p.Create(static_cast<const char*>(nullptr)));
    EXPECT_TRUE(p.Create("30.02.2024 00:00:00"));     // parsed, but not a date
    EXPECT_FALSE(p.IsValid());
    EXPECT_EQ(cTime("06.03.2024 00:00:00").GetDayOfWheek(), 3);

    cTime iso;
    EXPECT_TRUE(iso.FromISO8601String("2024-03-05T10:15:42Z"));
    EXPECT_TRUE(iso.IsUtc());
    EXPECT_EQ(iso.ToISO8601String(), "2024-03-05T10:15:42Z");
    EXPECT_EQ(iso.ToSeconds(), t.ToSeconds());
    EXPECT_TRUE(iso.FromISO8601String("2024-03-05T10:15:42.5"));
    EXPECT_FALSE(iso.IsUtc());
    EXPECT_EQ(iso.ToISO8601String(), "2024-03-05T10:15:42");
    EXPECT_EQ(iso.ToSeconds(), t.ToSeconds());
    EXPECT_FALSE(iso.FromISO8601String("2024-03-05T10:15:42+01:00"));
    EXPECT_FALSE(iso.FromISO8601String("2024-03-05"));
    EXPECT_FALSE(iso.FromISO8601String(""));
}

TEST(TimeTest, BinaryFormAndConversions)
{
    cTime t;
    t.Create(2024, 3, 5, 10, 15, 42, 123);
    const unsigned long long ms = 1709633742123ULL;   // date -u -d @1709633742
    ASSERT_EQ(t.GetSize(), 8);
    const unsigned char* b = static_cast<const unsigned char*>(t.GetBuffer());
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(b[i], (ms >> (8 * i)) & 0xFF) << i;
    cTime back;
    EXPECT_TRUE(back.Create(b, 8));
    EXPECT_TRUE(back == t);
    EXPECT_EQ(back.ToString(), t.ToString());
    EXPECT_FALSE(back.Create(b, 7));
    EXPECT_TRUE(back == t);

    EXPECT_EQ(t.FromSeconds(0xFFFFFFFFUL, true).ToISO8601String(), "2038-01-19T03:14:07Z");
    EXPECT_EQ(t.ToSeconds(), 0x7FFFFFFFUL);
    t.FromMilliSeconds(0x100000000ULL * 1000 + 1500, true);   // seconds truncated to 32 bits
    EXPECT_EQ(t.ToMilliSeconds(), 1500);

    cTime a, c;
    a.Create(2024, 3, 5, 10, 15, 42, 0);
    c.Create(2024, 3, 5, 10, 14, 12, 0);
    EXPECT_EQ((a - c).ToString(), "01.01.1970 00:01:30.000");
    EXPECT_EQ((a - a).ToString(), "01.01.1970 00:00:00.000");
    EXPECT_TRUE(c < a && a > c && c <= c && !(a <= c));
    cTime local = a;
    local.SetTmTime(false);
    EXPECT_EQ(local.Compare(a), 0);
}

TEST(TimeTest, AddSecondsRangeAndTrace)
{
    cTime t;
    t.Create(2024, 3, 5, 10, 15, 42, 123);
    t.AddSeconds(10);
    EXPECT_EQ(t.ToString(), "05.03.2024 10:15:52.000");
    t.AddDays(1);
    t.AddHours(-2);
    t.AddMinutes(3);
    EXPECT_EQ(t.ToString(), "06.03.2024 08:18:52.000");

    SetTraceOut(UnitORVO, OUTPUT_STDOUT);
    const eLEVEL old = UnitORVO->GetLevel();
    SetTraceLevel(UnitORVO, ERROR);
    t.FromSeconds(0x7FFFFFF0UL, true);
    testing::internal::CaptureStdout();
    t.AddSeconds(0x10);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("AddSeconds() result out of range (this=2147483632, sec=16)"),
              std::string::npos) << out;
    EXPECT_EQ(t.ToSeconds(), 0x7FFFFFF0UL);
    t.AddSeconds(0xF);
    EXPECT_EQ(t.ToSeconds(), 0x7FFFFFFFUL);
    t.FromSeconds(5, true);
    testing::internal::CaptureStdout();
    t.AddSeconds(-6);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("(this=5, sec=-6)"), std::string::npos);
    EXPECT_EQ(t.ToSeconds(), 5UL);
    t.AddSeconds(-5);
    EXPECT_EQ(t.ToSeconds(), 0UL);
    SetTraceLevel(UnitORVO, old);
    SetTraceOut(UnitORVO, OUTPUT_NONE);
}

TEST(TimeTest, LocalTimeFollowsCentralEuropeanZone)
{
    // The milliseconds are dropped and the ISO form still says UTC.
    cTime t0;
    unsigned applied = 0;
    t0.Create(2024, 5, 31, 22, 30, 0, 500);
    t0.ToLocalTime(1, true, &applied);
    EXPECT_EQ(t0.ToString(), "01.06.2024 00:30:00.000");
    EXPECT_EQ(t0.ToISO8601String(), "2024-06-01T00:30:00Z");

    // Oracle: the system's zone rules for Berlin (the POSIX rule string
    // needs no zone database, for a sysroot without one).
    const char* oldTz = std::getenv("TZ");
    const std::string saved = oldTz ? oldTz : "";
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    time_t probe = 1719835200;   // July 2024
    struct tm check = {};
    localtime_r(&probe, &check);
    if (check.tm_isdst <= 0) {
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
    }
    // Random instants over 2000-2036 plus both switch moments of every year.
    std::vector<long long> instants;
    std::mt19937 rng(7);
    for (long long s = 946684800; s < 2114380800; s += 20000 + rng() % 40000)
        instants.push_back(s);
    for (int year = 2000; year <= 2037; ++year) {
        for (int month : {2, 9}) {
            struct tm last = {};
            last.tm_year = year - 1900;
            last.tm_mon = month;
            last.tm_mday = 31;
            last.tm_hour = 1;
            const time_t end = timegm(&last);   // fills tm_wday
            const long long sw = static_cast<long long>(end) - 86400LL * last.tm_wday;
            for (long long d : {-3601LL, -3600LL, -1LL, 0LL, 1LL, 3599LL, 3600LL, 82799LL, 82800LL})
                instants.push_back(sw + d);
        }
    }
    for (long long s : instants) {
        const time_t utc = static_cast<time_t>(s);
        struct tm l = {};
        localtime_r(&utc, &l);
        cTime t;
        t.FromSeconds(static_cast<unsigned long>(s), true);
        t.ToLocalTime(1, true, &applied);
        ASSERT_EQ(applied, l.tm_isdst > 0 ? 2u : 1u) << s;
        ASSERT_EQ(t.IsSummerTime(), l.tm_isdst > 0);
        ASSERT_EQ(t.ToSeconds(), static_cast<unsigned long>(s + 3600 * applied));
        ASSERT_EQ(t.GetYear() * 10000 + t.GetMonth() * 100 + t.GetDay(),
                  (l.tm_year + 1900) * 10000 + (l.tm_mon + 1) * 100 + l.tm_mday) << s;
        ASSERT_EQ(t.GetHour() * 3600 + t.GetMinute() * 60 + t.GetSecond(),
                  l.tm_hour * 3600 + l.tm_min * 60 + l.tm_sec) << s;
    }
    if (oldTz)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();

    cTime winter;
    winter.Create(2024, 7, 1, 12, 0, 0, 0);
    winter.ToLocalTime(2, false, &applied);
    EXPECT_EQ(applied, 2u);
    EXPECT_EQ(winter.GetHour(), 14);
}

TEST(TimeTest, ClockSources)
{
    gFakeNow = 1709633742123LL;
    cTime::SetClockOverride(&FakeClock);
    cTime t;
    EXPECT_EQ(t.Now(true).ToString(), "05.03.2024 10:15:42.123");
    unsigned applied = 0;
    EXPECT_EQ(t.LocalTime(1, true, &applied).ToString(), "05.03.2024 11:15:42.000");
    cTime::SetClockOverride(nullptr);

    t.Now(true);
    const long long wall = static_cast<long long>(time(nullptr));
    EXPECT_LE(std::llabs(t.ToMilliSeconds() / 1000 - wall), 2);

    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const long long before = static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
    const long long now = GetMsecClock();
    EXPECT_GE(now, before);
    EXPECT_LT(now - before, 1000);

    // The coarse form reads the same clock, at most a tick behind, and
    // follows the override like the precise one.
    const long long coarse = GetMsecClockCoarse();
    EXPECT_LE(coarse, GetMsecClock());
    EXPECT_GE(coarse, now - 100);
    SetMsecClockOverride([] { return 123456789LL; });
    EXPECT_EQ(GetMsecClockCoarse(), 123456789LL);
    EXPECT_EQ(GetMsecClock(), 123456789LL);
    SetMsecClockOverride(nullptr);
}
