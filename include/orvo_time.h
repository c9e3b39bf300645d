// orvo_time.h - cTime, the library's point in time with millisecond
// resolution, the monotonic millisecond clock and the month-length table.
//
// A cTime keeps the seconds since 1970-01-01 00:00:00 UTC as a signed 32-bit
// value on every platform (the device's time_t is 32 bits), the milliseconds
// as microseconds (a whole number of milliseconds times 1000), and the
// calendar breakdown of the seconds, either in UTC or in the process's local
// zone. It is a plain value: copy it freely; it is not thread-safe.
//
// cTime is never used to measure intervals: time-outs use GetMsecClock().
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "orvo_object.h"

namespace orvo {

// Longest length of each month: 31, 29, 31, 30, ... (February 29).
ORVO_API extern const int DayOfMonth[12];

// Monotonic milliseconds (CLOCK_MONOTONIC: seconds * 1000 + ns / 1000000);
// the clock of every time-out and interval. Thread-safe.
ORVO_API long long GetMsecClock();
// The same clock read at the resolution of the system tick (a few
// milliseconds late at most), several times cheaper: for bookkeeping that
// compares spans of seconds. Follows the override below like GetMsecClock.
ORVO_API long long GetMsecClockCoarse();

// Time seam for tests: when set, GetMsecClock() returns func() instead of
// the monotonic clock, so timer due times and late wake-ups can be driven
// without waiting. Null restores the system clock. Process-wide; set it
// before the services whose timers it is to drive run.
using tMsecClockFunc = long long (*)();
ORVO_API void SetMsecClockOverride(tMsecClockFunc func);

class ORVO_API cTime : public cObject {
public:
    // The epoch with seconds and milliseconds 0, but calendar fields all zero
    // (they read day 0, month 1, year 1900 until something sets the time);
    // both flags false.
    cTime();
    cTime(const cTime& other);            // every field, both flags included
    explicit cTime(const char* text);     // Create(text)
    cTime& operator=(const cTime& other);
    ~cTime() override;

    // ---- Setting ---------------------------------------------------------

    // Wall-clock time (gettimeofday, or the clock override when one is set),
    // cut to whole milliseconds; breakdown in UTC when utc, else local.
    cTime& Now(bool utc);
    // Seconds = sec, but 0x80000000 and above are stored as 0x7FFFFFFF;
    // milliseconds 0.
    cTime& FromSeconds(unsigned long sec, bool utc);
    // Seconds = ms / 1000 truncated to 32 bits (read as signed), milliseconds
    // = ms % 1000.
    cTime& FromMilliSeconds(unsigned long long ms, bool utc);
    // Sets the UTC flag and re-derives the calendar fields from the seconds
    // (gmtime_r when utc, localtime_r otherwise).
    void SetTmTime(bool utc);
    // Month 1-12, day 1-31, full year; the fields are taken as UTC and are
    // not normalised: 30 February, 31 April, month 13, hour 24 or a date
    // outside the signed 32-bit range give seconds -1. The second is added
    // to the matching minute unchecked (75 reads as the next minute + 15) as
    // long as the sum stays inside the 32-bit range. Returns false exactly
    // when the seconds are -1. Breakdown in UTC; milliseconds not checked.
    bool Create(int year, int month, int day, int hour, int minute, int second,
                int millisecond);
    // Parses exactly the ToString form "DD.MM.YYYY hh:mm:ss[.mmm]" (each
    // number read with strtol base 10 and kept to its low 16 bits; the digits
    // after the point are a count of milliseconds, ".7" is 7 ms). The value
    // is cleared first (epoch, calendar fields zero). A null text or a
    // missing/different separator returns false with the value cleared.
    // Otherwise returns true, even when the date is not representable
    // (seconds -1, IsValid() false). Breakdown in UTC.
    bool Create(const char* text);
    bool Create(const std::string& text);
    // Binary form: exactly 8 bytes, unsigned little-endian milliseconds since
    // the epoch, read with FromMilliSeconds(value, true). A null pointer or
    // any other size returns false and leaves the value unchanged.
    bool Create(const void* data, int size);
    // "YYYY-MM-DDThh:mm:ss" with an optional final "Z". Fields are read with
    // atoi (a fractional second reads as the whole second; a zone offset
    // such as "+01:00" fails). Seconds are always computed as UTC. With "Z"
    // the UTC flag is set and the calendar fields are the UTC breakdown;
    // without it the flag is clear and the fields stay exactly as parsed.
    // Returns false (value reset to the epoch, fields zero) when the text
    // does not split into date and time of three parts each.
    bool FromISO8601String(const std::string& text);

    // ---- Reading ---------------------------------------------------------

    bool IsValid() const { return m_Seconds >= 0; }
    // The seconds as the device's unsigned 32-bit value (-1 reads 0xFFFFFFFF).
    unsigned long ToSeconds() const;
    // seconds * 1000 + milliseconds, signed.
    long long ToMilliSeconds() const;
    int GetMilliSecond() const { return m_MicroSeconds / 1000; }
    int GetSecond() const { return m_Tm.tm_sec; }
    int GetMinute() const { return m_Tm.tm_min; }
    int GetHour() const { return m_Tm.tm_hour; }
    int GetDay() const { return m_Tm.tm_mday; }            // day of month
    int GetMonth() const { return m_Tm.tm_mon + 1; }       // 1-12
    int GetYear() const { return m_Tm.tm_year + 1900; }    // full year
    int GetDayOfWheek() const { return m_Tm.tm_wday; }     // 0 = Sunday
    bool IsSummerTime() const { return m_SummerTime; }     // ToLocalTime added an hour
    bool IsUtc() const { return m_Utc; }                   // fields are a UTC breakdown
    const struct tm& GetTm() const { return m_Tm; }

    // Binary form: GetBuffer() writes ToMilliSeconds() as 8 bytes
    // little-endian into an internal buffer and returns it; the pointer stays
    // valid until the next GetBuffer() call or the object's destruction.
    int GetSize() const { return 8; }
    const void* GetBuffer() const;

    std::string ToString() const override;       // 05.03.2024 10:15:42.123
    virtual std::string ToDateString() const;    // 05.03.2024
    virtual std::string ToTimeString() const;    // 10:15:42.123
    // 2024-03-05T10:15:42 plus "Z" when the UTC flag is set; no milliseconds.
    virtual std::string ToISO8601String() const;

    // ---- Comparison and arithmetic ----------------------------------------

    // 1, -1 or 0 by seconds (signed), then microseconds; the breakdown and
    // the flags are not compared.
    int Compare(const cTime& other) const;
    bool operator==(const cTime& o) const { return Compare(o) == 0; }
    bool operator<(const cTime& o) const { return Compare(o) < 0; }
    bool operator>(const cTime& o) const { return Compare(o) > 0; }
    bool operator<=(const cTime& o) const { return Compare(o) <= 0; }
    // FromMilliSeconds(this ms - other ms, true): the difference as a time
    // since the epoch (90 s reads 01.01.1970 00:01:30.000).
    cTime operator-(const cTime& other) const;

    // Whole-second arithmetic: on success the value becomes
    // FromSeconds(seconds + sec, true), which drops the milliseconds and
    // breaks down in UTC. A result above 0x7FFFFFFF or below 0 leaves the
    // value unchanged and traces "AddSeconds() result out of range" on
    // UnitORVO at ERROR. The multiplications of the other three wrap
    // unchecked.
    void AddSeconds(long sec);
    void AddMinutes(long minutes);
    void AddHours(long hours);
    void AddDays(long days);

    // Local time by a fixed central-European rule (no zone database): shift
    // by offsetHours; when summerTime, add one more hour from the last
    // Sunday of March 02:00 standard time to the last Sunday of October
    // 02:00 standard time. appliedHours (may be null) receives the total
    // shift. The result's fields read the local wall-clock time, its seconds
    // are the shifted seconds, its UTC flag is set and its milliseconds are 0.
    cTime& ToLocalTime(int offsetHours, bool summerTime, unsigned int* appliedHours);
    // Now(true) followed by ToLocalTime.
    cTime& LocalTime(int offsetHours, bool summerTime, unsigned int* appliedHours);

    // Time seam for tests and clock-driven logic: when set, Now() (and so
    // LocalTime()) reads this function (milliseconds since the epoch) instead
    // of gettimeofday. Null restores the system clock. Process-wide.
    using tClockFunc = long long (*)();
    static void SetClockOverride(tClockFunc func);

private:
    void ClearTm();

    int32_t m_Seconds = 0;              // seconds since the epoch, -1 invalid
    int32_t m_MicroSeconds = 0;         // whole milliseconds * 1000
    struct tm m_Tm;                     // breakdown of m_Seconds
    mutable unsigned char m_Binary[8];  // filled by GetBuffer
    bool m_SummerTime = false;          // ToLocalTime added the summer hour
    bool m_Utc = false;                 // m_Tm is a UTC breakdown
};

}  // namespace orvo
