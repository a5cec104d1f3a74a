#pragma once

// The geometry check of a new super block: changes that pass or fail it, and the messages.

#include "super_repair.h"
#include "super_values.h"

#include <functional>
#include <utility>

namespace tier_test {

template <class Super>
struct Passing {
    std::string name;
    std::function<void(Super &)> change;
};

template <class Super>
struct Failing {
    std::string name;
    std::function<void(Super &)> change;
    std::string (*message)(const Super &);
};

// Counts are changed together with the geometry that belongs to them.
template <class Super>
std::function<void(Super &)> counts(void (*change)(Super &))
{
    return [change](Super &sb) {
        change(sb);
        set_geometry(sb);
    };
}

// What holds where the geometry follows from the counts.
extern const std::vector<Passing<SuperHead>> PASSING_HEADS;
extern const std::vector<Failing<SuperHead>> FAILING_HEADS;

std::string size_message(const SuperHead &sb);
std::string brick_message(const SuperHead &sb);
std::string inode_message(const SuperHead &sb);
std::string block_message(const SuperHead &sb);
std::string extent_table_message(const SuperHead &sb);
std::string data_offset_message(const SuperHead &sb);
std::string ssd_uuid_message(const SuperHead &sb);
std::string message_of_ssd_uuid(const std::string &given);

// A failing check, and what puts it right.
template <class Super>
struct Step {
    std::function<std::string(const Super &)> message;
    std::function<void(Super &)> put_right;
};

// Makes every check of the head fail.
void spoil(SuperHead &sb);

extern const Step<SuperHead> SIZE_STEP;
extern const Step<SuperHead> BRICK_STEP;
extern const Step<SuperHead> INODE_STEP;
extern const Step<SuperHead> BLOCK_STEP;
extern const Step<SuperHead> EXTENT_TABLE_STEP;
extern const Step<SuperHead> DATA_OFFSET_STEP;
extern const Step<SuperHead> SSD_UUID_STEP;

template <class Super>
class SuperCheck : public SuperRepair<Super> {
protected:
    static Super changed(const std::function<void(Super &)> &change)
    {
        Super sb = Layout<Super>::super(2, 3, 4);
        change(sb);
        derive(sb);
        return sb;
    }

    template <class Part>
    void expect_passing(const std::vector<Passing<Part>> &cases)
    {
        for (const auto &[name, change] : cases) {
            SCOPED_TRACE(name);
            const Super sb = changed(change);
            this->expect_accepted(repair_file(sb).text(), sb);
        }
    }

    template <class Part>
    void expect_failing(const std::vector<Failing<Part>> &cases)
    {
        for (const auto &[name, change, message] : cases) {
            SCOPED_TRACE(name);
            const Super sb = changed(change);
            this->expect_out_of_bounds(sb, message(sb));
        }
    }

    template <class Part>
    void expect_forced(const std::vector<Failing<Part>> &cases)
    {
        for (const auto &[name, change, message] : cases) {
            SCOPED_TRACE(name);
            const Super sb = changed(change);
            Super stored = sb;
            stored.ssd_uuid = sb.ssd_uuid.substr(0, 47);
            this->expect_accepted(repair_file(sb).text(), stored, {"-F"});
        }
    }

    static Step<Super> of_head(const Step<SuperHead> &step)
    {
        return {step.message, step.put_right};
    }

    // From a super block that fails every check, each step is put right in turn, and the next one
    // reports.
    void expect_order(Super sb, const std::vector<Step<Super>> &steps)
    {
        for (const auto &[message, put_right] : steps) {
            SCOPED_TRACE(message(sb));
            this->expect_out_of_bounds(sb, message(sb));
            put_right(sb);
            derive(sb);
        }
        this->expect_accepted(repair_file(sb).text(), sb);
    }
};

} // namespace tier_test
