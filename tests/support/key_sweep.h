#pragma once

// Repair files changed key by key, and runs that must treat each as the model does.

#include "device.h"
#include "expect.h"
#include "parsed.h"

#include <gtest/gtest.h>
#include <iosfwd>

namespace tier_test {

// The members of an object in writing order, their values as JSON text.
using Members = std::vector<std::pair<std::string, std::string>>;

struct SweptKey {
    enum class Type { NUMBER, STRING, ARRAY };

    std::string name;
    Type type = Type::NUMBER;
    Need need = Need::ALWAYS;
    unsigned width = 64;  // in bits, of a number
    bool decides = false; // whether other values of it may refuse the file or free the entry
    std::vector<std::string> values{}; // of its own type, of interest for this key alone
};

// A device, and a repair file of one of its tables in which every key stands.
struct RepairSample {
    std::string name;
    const TableModel *table;
    Device (*device)();
    Block super;
    Members members;            // of the object whose keys are changed
    std::vector<SweptKey> keys; // in reading order
    std::string before{};       // the text of the file before the object
    std::string after{};

    std::string document(const Members &changed) const;
    std::string document() const { return document(members); }
    Block block() const { return *parsed().block; } // that it makes
    Parsed parsed() const { return tier_test::parsed(*table, super, document()); }
};

// The samples of all tables of all layouts, and of the items of their arrays.
const std::vector<RepairSample> &repair_samples();
const RepairSample &repair_sample(const std::string &name);

// A JSON value of each type but that.
std::vector<std::string> values_of_other_types(SweptKey::Type type);

class KeySweep : public testing::TestWithParam<const RepairSample *> {
protected:
    RepairSample sample = *GetParam();
    const TableModel &table = *sample.table;
    Device device = sample.device();
    std::vector<std::uint8_t> content = device.bytes(); // as every run finds it

    // Runs the repair command of the table. A sweep counts its runs here.
    virtual LoggedRun run(const std::vector<std::string> &args)
    {
        return run_logged(device, table.repair, args);
    }

    // The sample with the value of one key.
    Members with(const std::string &key, const std::string &value) const;
    Members without(const std::string &key) const;

    // The run prints, logs and writes what the model says, whether the file is refused or not.
    void expect(const Members &members) { expect_document(sample.document(members)); }
    void expect_document(const std::string &document);

    // Every key in turn.
    void expect_missing_keys();
    void expect_other_types();
    void expect_own_values();
    // In other cases, and twice: the first of two counts, in whatever case it stands.
    void expect_any_case();
    void expect_numbers(const std::vector<std::string> &numbers);

    // The same of a text that the model does not read.
    void expect_parsed(const std::string &document, const Parsed &expected, bool forced);

private:
    // The device has that place, and direct writing takes it.
    bool is_writable(std::int64_t place) const;
    void expect_run_of(const std::string &document, const Parsed &expected, bool forced,
                       bool commit);
    Log log_of(const Parsed &expected, bool commit) const;
};

std::vector<const RepairSample *> all_samples();
std::string sample_name(const testing::TestParamInfo<const RepairSample *> &info);
std::ostream &operator<<(std::ostream &out, const RepairSample *sample);

} // namespace tier_test
