#include "standalone/znlib/UtcTime.h"

#include <boost/date_time/gregorian/greg_calendar.hpp>

#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>

namespace
{

// The time up to the second, which many lines of a thread share.
struct Second
{
    std::time_t second;
    std::array<char, 64> text; // "2026-11-23T14:20:05"
};

void Format(Second& formatted, std::time_t second)
{
    constexpr long kDay = 24L * 60 * 60;
    constexpr long kFirstDayOf1970 = 2440588; // Julian day number
    const auto date = boost::gregorian::gregorian_calendar::from_day_number(
        static_cast<std::uint32_t>(kFirstDayOf1970 + second / kDay));
    const long ofDay = second % kDay;
    static_cast<void>(std::snprintf(formatted.text.data(), formatted.text.size(),
                                    "%04d-%02d-%02dT%02ld:%02ld:%02ld", static_cast<int>(date.year),
                                    static_cast<int>(date.month), static_cast<int>(date.day),
                                    ofDay / 3600, ofDay / 60 % 60, ofDay % 60));
    formatted.second = second;
}

} // namespace

void znlib::AppendUtcTime(std::string& line)
{
    thread_local Second last{-1, {}};
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != last.second)
        Format(last, now.tv_sec);
    const long thousandth = now.tv_nsec / 1'000'000;
    line += last.text.data();
    line += '.';
    for (const long unit : {100, 10, 1})
        line += static_cast<char>('0' + thousandth / unit % 10);
    line += 'Z';
}
