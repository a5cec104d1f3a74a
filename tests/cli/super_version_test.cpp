// The version in the repair file of a super block that admits only its own.

#include "super_parse.h"
#include "super_values.h"

#include <algorithm>

using namespace tier_test;

namespace {

template <class Super>
class SuperVersion : public SuperParseFixture<Super> {
protected:
    const std::string digits = text("%x", this->super.version);

    void expect_version_refused(const std::string &given, const std::string &reason)
    {
        SCOPED_TRACE(given);
        RepairFile changed = this->file;
        changed.string("version", given);
        for (const std::vector<std::string> &args :
             {std::vector<std::string>{}, std::vector<std::string>{"-F"}})
            this->expect_refused_at(
                "version", changed.text(),
                "version str " + given.substr(0, 31) + " is invalid:" + reason + ". cmd:9", args);
    }
};

TYPED_TEST_SUITE(SuperVersion, ExactVersionSupers, SuperNames);

TYPED_TEST(SuperVersion, ItsOwnInHexadecimal)
{
    const std::string own = this->digits;
    const std::string longest = std::string(26, '0') + own; // 31 characters
    for (const std::string &given : {own, "0x" + own, "0X" + own, "00" + own, own + " and more",
                                     "0x" + own + ")", longest, longest + "0"})
        this->expect_logged("version", json_string(given), this->super, given.substr(0, 31));
}

TYPED_TEST(SuperVersion, AnyOtherIsRefusedEvenWithForce)
{
    std::vector<std::string> others{
        "0x10000",
        "0x20000",
        "0x30000",
        text("%x", this->super.version + 1),
        std::to_string(this->super.version), // in decimal
        "",
        "version",
        "1000" + this->digits, // right in its low 32 bits
    };
    ASSERT_EQ(std::erase(others, "0x" + this->digits), 1U);
    for (const std::string &given : others)
        this->expect_version_refused(given, "Success");
}

TYPED_TEST(SuperVersion, NumberOutOfRangeIsRefusedEvenWithForce)
{
    for (const std::string &given : {"1000000000000" + this->digits, std::string(40, '1')})
        this->expect_version_refused(given, "Numerical result out of range");
}

} // namespace
