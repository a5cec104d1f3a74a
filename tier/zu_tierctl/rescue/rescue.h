#pragma once

#include "zu_tierctl/rescue/areas.h"
#include "zu_tierctl/rescue/reading.h"

#include <any>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* A lost super block, found again from the tables that it described. */

/* The device as the layouts read it. */
class Remains {
public:
    explicit Remains(const Device &device) : blocks_(device) {}

    const BlockReader &blocks() const { return blocks_; }

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
    BlockReader blocks_;
    std::map<std::string_view, std::any> facts_;
};

/* The tables that the layouts V1 and V2 have in common. */
inline const AreaFacts &area_facts(Remains &remains, const tier_layout &layout)
{
    return remains.facts("areas", [&] { return survey_areas(remains.blocks(), layout); });
}

/* How the super block of a layout follows from the tables. A layout without is told from its block
 * alone. */
struct RescueLayout {
    std::string_view name;
    SuperReading (*read)(const tier_layout &layout, Remains &remains,
                         const std::vector<Hint> &hints);
};

/* Registers how a layout is read, once, before main. */
void register_rescue(const RescueLayout *layout);

/* A value that no table holds, as JSON; "null" where nobody knows it, which the tool refuses. */
struct IdentityValue {
    std::string_view key;
    std::string json{};
    std::string reason{}; /* of a value that nobody knows: what may be it, or empty */
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
