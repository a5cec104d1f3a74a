#pragma once

#include "super_repair.h"

namespace tier_test {

// Repairs from the file of one super block, changed key by key.
template <class Super>
class SuperParseFixture : public SuperRepair<Super> {
protected:
    Super super = Layout<Super>::super(3, 3, 3);
    RepairFile file = repair_file(super);
    std::vector<SuperKey> keys = super_keys(super);

    // The parse ends at `key` with these messages.
    void expect_refused_at(const std::string &key, const std::string &conf_text,
                           const std::string &message, const std::vector<std::string> &args = {})
    {
        this->expect_refused(
            conf_text,
            this->log_of_keys(super, keys_before(keys, key),
                              {error_line(this->parser, message), this->rejected()}),
            args);
    }
};

} // namespace tier_test
