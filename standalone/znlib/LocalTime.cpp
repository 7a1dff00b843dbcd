#include "standalone/znlib/LocalTime.h"

#include <boost/date_time/gregorian/greg_calendar.hpp>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <unistd.h>

namespace
{

long ReadUtcOffset(std::time_t time)
{
    std::tm local{};
    localtime_r(&time, &local);
    return local.tm_gmtoff;
}

// The process that loaded this library, and the last offset it used.
const pid_t g_loader = getpid();
std::atomic<long> g_utcOffset{ReadUtcOffset(std::time(nullptr))};

// Seconds east of UTC. A forked child keeps its parent's offset, since it must not take the C library's
// lock. The times that it writes stay right.
long UtcOffset(std::time_t time)
{
    if (getpid() == g_loader)
        g_utcOffset = ReadUtcOffset(time);
    return g_utcOffset;
}

// The texts before and after the milliseconds, for one second.
struct SecondText
{
    std::time_t second = -1;
    std::array<char, 64> date{};
    std::array<char, 64> zone{};
};

// Formatted once per second and thread. Plain data: a thread-local object with a destructor would keep
// the library loaded until the thread ends.
thread_local SecondText t_text;

void FormatSecond(SecondText& text, std::time_t second)
{
    const long offset = UtcOffset(second);
    constexpr long kDay = 24L * 60 * 60;
    constexpr long kFirstDayOf1970 = 2440588; // Julian day number
    const long local = kFirstDayOf1970 * kDay + second + offset;
    const auto date =
        boost::gregorian::gregorian_calendar::from_day_number(static_cast<std::uint32_t>(local / kDay));
    const long inDay = local % kDay;
    static_cast<void>(std::snprintf(text.date.data(), text.date.size(),
                                    "%04d-%02d-%02d %02ld:%02ld:%02ld.", static_cast<int>(date.year),
                                    static_cast<int>(date.month), static_cast<int>(date.day),
                                    inDay / 3600, inDay / 60 % 60, inDay % 60));
    const long minutes = std::labs(offset) / 60;
    static_cast<void>(std::snprintf(text.zone.data(), text.zone.size(), " %c%02ld%02ld",
                                    offset < 0 ? '-' : '+', minutes / 60, minutes % 60));
    text.second = second;
}

} // namespace

void znlib::AppendLocalTime(std::string& line)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (t_text.second != now.tv_sec)
        FormatSecond(t_text, now.tv_sec);
    const long milliseconds = now.tv_nsec / 1'000'000;
    line += t_text.date.data();
    for (const long unit : {100L, 10L, 1L})
        line += static_cast<char>('0' + milliseconds / unit % 10);
    line += t_text.zone.data();
}
