#include "platform/libClock.h"

#include <algorithm>
#include <cstdint>
#include <ctime>

#ifdef _WIN32
#include <windows.h>
#endif

namespace vestrel {

namespace {

using std::chrono::system_clock;

/// The whole seconds before a moment, and the rest.
std::time_t WholeSeconds(system_clock::time_point moment, double& rest) {
    const auto whole = std::chrono::floor<std::chrono::seconds>(moment);
    rest = std::chrono::duration<double>(moment - whole).count();
    return static_cast<std::time_t>(whole.time_since_epoch().count());
}

#ifdef _WIN32

constexpr std::int64_t ticksPerSecond = 10'000'000;
constexpr std::int64_t unixEpochSeconds = 11'644'473'600;  // after 1601, where Windows counts from

std::int64_t SecondsOf(const SYSTEMTIME& time) {
    FILETIME file{};
    SystemTimeToFileTime(&time, &file);
    const auto ticks = (static_cast<std::uint64_t>(file.dwHighDateTime) << 32) | file.dwLowDateTime;
    return static_cast<std::int64_t>(ticks) / ticksPerSecond;
}

#else

/// Universal − local time at a moment.
int BiasAt(std::time_t seconds, std::tm& local) {
    local = {};
    localtime_r(&seconds, &local);
    return static_cast<int>(-local.tm_gmtoff);
}

#endif

}  // namespace

LocalTime LocalTimeAt(system_clock::time_point moment) {
    double fraction = 0;
    const std::time_t seconds = WholeSeconds(moment, fraction);
#ifdef _WIN32
    const std::int64_t ticks = (seconds + unixEpochSeconds) * ticksPerSecond;
    FILETIME file{};
    file.dwLowDateTime = static_cast<DWORD>(ticks);
    file.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
    SYSTEMTIME universal{};
    SYSTEMTIME local{};
    FileTimeToSystemTime(&file, &universal);
    // Without a time zone local time is universal time.
    if (!SystemTimeToTzSpecificLocalTime(nullptr, &universal, &local)) local = universal;
    TIME_ZONE_INFORMATION zone{};
    GetTimeZoneInformation(&zone);
    return {local.wYear,
            local.wMonth,
            local.wDay,
            local.wHour,
            local.wMinute,
            local.wSecond + fraction,
            static_cast<int>(SecondsOf(universal) - SecondsOf(local)),
            static_cast<int>((zone.Bias + zone.StandardBias) * 60)};
#else
    std::tm local{};
    const int bias = BiasAt(seconds, local);
    // Summer time is ahead of standard time, so standard time has the larger bias of two days half
    // a year apart, in either hemisphere and whatever the zone calls it.
    std::tm ignored{};
    const std::time_t newYear = seconds - local.tm_yday * std::time_t{86400};
    const int standard =
        std::max(BiasAt(newYear, ignored), BiasAt(newYear + std::time_t{182} * 86400, ignored));
    return {local.tm_year + 1900, local.tm_mon + 1,        local.tm_mday, local.tm_hour,
            local.tm_min,         local.tm_sec + fraction, bias,          standard};
#endif
}

}  // namespace vestrel
