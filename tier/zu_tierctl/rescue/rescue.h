#pragma once

#include "zu_tierctl/rescue/areas.h"
#include "zu_tierctl/rescue/reading.h"

#include <any>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* A lost super block, found again from the tables that it described. */

/* The device as the layouts read it. */
class Remains {
public:
    explicit Remains(const Device &device) : device_(device) {}

    const Device &device() const { return device_; }

    /* What `survey` gives, which runs once for each name. */
    template <class Survey>
    const auto &facts(std::string_view name, const Survey &survey)
    {
        using Facts = decltype(survey());
        std::any &kept = facts_[name];
        if (!kept.has_value()) {
            kept = survey();
        }
        return *std::any_cast<Facts>(&kept);
    }

private:
    const Device &device_;
    std::map<std::string_view, std::any> facts_;
};

/* The tables that the layouts V1 and V2 have in common. */
inline const AreaFacts &area_facts(Remains &remains, const tier_layout &layout)
{
    return remains.facts("areas", [&] { return survey_areas(remains.device(), layout); });
}

/* How the super block of a layout follows from the tables. */
struct RescueLayout {
    std::string_view name;
    SuperReading (*read)(const tier_layout &layout, Remains &remains,
                         const std::vector<Hint> &hints);
};

extern const RescueLayout RESCUE_LAYOUT_V1;
extern const RescueLayout RESCUE_LAYOUT_V2;
extern const RescueLayout RESCUE_LAYOUT_V3;

/* A value that no table holds, as JSON; "null" where nobody knows it, which the tool refuses. */
struct IdentityValue {
    std::string_view key;
    std::string json;
    std::string reason;
    Certainty certainty = Certainty::none;
};

struct Rescued {
    SuperReading reading;
    std::vector<IdentityValue> identity;
    std::vector<std::string> notes; /* about the block, and other layouts */
    std::string file;               /* the repair file */
    bool complete = false;          /* it has no placeholder */
};

struct RescueOptions {
    std::string device;
    std::string uuid{}; /* empty: not given */
    std::string ssd_uuid{};
    std::string ctime{};
    std::string like{}; /* a device or saved file of the same kind; or empty */
    bool verify = true;
};

/* The super block of a device. Throws when nothing on it looks like a table. */
Rescued find_super(const Device &device, const RescueOptions &options);

/* Prints its repair file, and on standard error what is known of each value. False when a value
 * has to be filled in. */
bool rescue(const RescueOptions &options);

} // namespace tierctl
