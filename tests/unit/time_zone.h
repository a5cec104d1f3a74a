#pragma once

// The time zone of the process.

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace tier_test {

// Null for none.
inline void set_zone(const char *zone)
{
    if (zone != nullptr)
        setenv("TZ", zone, 1);
    else
        unsetenv("TZ");
    tzset();
}

// A zone for as long as the object lives.
class Zone {
public:
    explicit Zone(const char *zone)
    {
        if (const char *own = std::getenv("TZ"))
            before_ = own;
        set_zone(zone);
    }
    ~Zone() { set_zone(before_ ? before_->c_str() : nullptr); }
    Zone(const Zone &) = delete;
    Zone &operator=(const Zone &) = delete;

private:
    std::optional<std::string> before_;
};

} // namespace tier_test
