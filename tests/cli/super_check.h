#pragma once

// The geometry check of a new super block: changes that pass or fail it, and the messages.

#include "super_repair.h"
#include "super_values.h"

#include <functional>
#include <utility>

namespace tier_test {

template <class Super>
struct Change {
    std::string name;
    std::function<void(Super &)> apply;
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
extern const std::vector<Change<SuperHead>> PASSING_HEADS;
extern const std::vector<Change<SuperHead>> FAILING_HEADS;

// Makes every check of the head fail.
void spoil(SuperHead &sb);

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
    void expect_passing(const std::vector<Change<Part>> &cases)
    {
        for (const auto &[name, apply] : cases) {
            SCOPED_TRACE(name);
            const Super sb = changed(apply);
            this->expect_accepted(repair_file(sb).text(), sb);
        }
    }

    template <class Part>
    void expect_failing(const std::vector<Change<Part>> &cases)
    {
        for (const auto &[name, apply] : cases) {
            SCOPED_TRACE(name);
            const Super sb = changed(apply);
            this->expect_rule_broken(sb);
        }
    }

    template <class Part>
    void expect_forced(const std::vector<Change<Part>> &cases)
    {
        for (const auto &[name, apply] : cases) {
            SCOPED_TRACE(name);
            const Super sb = changed(apply);
            Super stored = sb;
            stored.ssd_uuid = sb.ssd_uuid.substr(0, 47);
            this->expect_accepted(repair_file(sb).text(), stored, {"-F"});
        }
    }

    // The rule that the super block breaks, and which the tool names.
    std::size_t expect_rule_broken(const Super &sb)
    {
        Super stored = sb;
        stored.ssd_uuid = sb.ssd_uuid.substr(0, 47);
        const std::size_t broken = broken_rule(table, encode(stored));
        EXPECT_LT(broken, table.rules.size());
        if (broken < table.rules.size())
            this->expect_out_of_bounds(sb, table.rules[broken].sentence(encode(stored)));
        return broken;
    }

    // From a super block that breaks every rule, each step puts the first of them right.
    void expect_order(Super sb, const std::vector<std::function<void(Super &)>> &steps)
    {
        std::size_t next = 0; // rule
        for (const auto &put_right : steps) {
            const std::size_t broken = expect_rule_broken(sb);
            EXPECT_TRUE(broken == next || broken + 1 == next) << broken;
            next = broken + 1;
            put_right(sb);
            derive(sb);
        }
        EXPECT_EQ(next, table.rules.size());
        this->expect_accepted(repair_file(sb).text(), sb);
    }

private:
    const TableModel &table = model(std::stoi(Layout<Super>::VERSION), "super");
};

} // namespace tier_test
