#include "standalone/znlib/UtcTime.h"

#include <boost/date_time/gregorian/greg_calendar.hpp>

#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>

void znlib::AppendUtcTime(std::string& line)
{
    constexpr long kDay = 24L * 60 * 60;
    constexpr long kFirstDayOf1970 = 2440588; // Julian day number
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const auto date = boost::gregorian::gregorian_calendar::from_day_number(
        static_cast<std::uint32_t>(kFirstDayOf1970 + now.tv_sec / kDay));
    const long second = now.tv_sec % kDay;
    std::array<char, 128> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02ld:%02ld:%02ld.%03ldZ",
                                    static_cast<int>(date.year), static_cast<int>(date.month),
                                    static_cast<int>(date.day), second / 3600, second / 60 % 60,
                                    second % 60, now.tv_nsec / 1'000'000));
    line += text.data();
}
