// zu_tierctl revert of a super block: only where the device is the one that was saved.

#include "revert_run.h"

#include <filesystem>

using namespace tier_test;

namespace {

class RevertSuper : public Revert {
protected:
    const TableModel &super = model(GetParam()[1] - '0', "super");
    const TableModel &brick = model(GetParam()[1] - '0', "brick");

    static std::int64_t at(const TableModel &table, const std::string &field)
    {
        return static_cast<std::int64_t>(table.field(field).byte);
    }

    std::string identity() const
    {
        return uuid_text(get_uuid(block_of("super", 0), super.field("uuid").byte));
    }

    RunResult commit(const std::vector<std::string> &options = {}) const
    {
        std::vector<std::string> all{"--commit"};
        all.insert(all.end(), options.begin(), options.end());
        return revert("super", 0, all);
    }

    void expect_done(const RunResult &run, const Block &then) const
    {
        EXPECT_EQ(run.status, 0) << run;
        EXPECT_TRUE(run.out.ends_with("written\n")) << run;
        EXPECT_TRUE(block_of("super", 0) == then);
    }

    void expect_reason(const std::string &reason) const
    {
        expect_refused("super", 0, reason + "; to put it back all the same: --other-device");
    }
};

INSTANTIATE_TEST_SUITE_P(Layout, RevertSuper, testing::ValuesIn(LAYOUTS),
                         [](const auto &layout) { return layout.param; });

TEST_P(RevertSuper, OfAnotherCache)
{
    const Block then = block_of("super", 0);
    const std::string identity_then = identity();
    edit("super", 0, at(super, "uuid") + 3, 0x18);
    const std::string identity_now = identity();
    ASSERT_NE(identity_now, identity_then);
    const std::string reason = cache.device.path() + " is the cache " + identity_now + ", " +
                               saved + " was saved from the cache " + identity_then;
    expect_reason(reason);

    const RunResult shown = revert("super", 0, {"--other-device"});
    const std::string told = "zu_tierctl: --other-device: " + reason + "; " + cache.device.path() +
                             " takes the super block of " + saved +
                             " all the same, with its identity and its places of the tables\n";
    EXPECT_EQ(shown.err, told + NOTHING_WRITTEN);
    EXPECT_EQ(identity(), identity_now);
    const RunResult done = commit({"--other-device"});
    EXPECT_EQ(done.err, told);
    expect_done(done, then);
}

TEST_P(RevertSuper, OfTheSameCacheWithOtherValues)
{
    const Block then = block_of("super", 0);
    edit("super", 0, at(super, "ctime"), 0x01);
    expect_done(commit(), then);
}

// The identity can still be read although the block is damaged: the tables do not matter.
TEST_P(RevertSuper, DamagedElsewhere)
{
    const Block then = block_of("super", 0);
    flip(cache.device, SUPER_OFFSET + at(super, "ctime"));
    edit("brick", 1, at(brick, "bi_uuid"), 0x01);
    expect_done(commit(), then);
}

TEST_P(RevertSuper, LostWithTheSameBricks)
{
    const Block then = block_of("super", 0);
    put_block(cache.device, SUPER_OFFSET, Block{});
    expect_done(commit(), then);
}

TEST_P(RevertSuper, LostWithOtherBricks)
{
    edit("brick", 1, at(brick, "bi_uuid") + 15, 0x80);
    put_block(cache.device, SUPER_OFFSET, Block{});
    expect_reason("1 of the 1 entries (brick) that are sound in both have another identity on " +
                  cache.device.path() + " than in " + saved);
}

// Free entries and damaged ones prove nothing.
TEST_P(RevertSuper, LostWithoutBricks)
{
    const Block then = block_of("super", 0);
    const std::string reason = "nothing shows that " + cache.device.path() + " is the device of " +
                               saved + ": no entry (brick) is sound and in use in both";
    const Block used = block_of("brick", 1);
    flip(cache.device, cache.offset("brick", 1) + at(brick, "bi_uuid"));
    put_block(cache.device, SUPER_OFFSET, Block{});
    expect_reason(reason);
    put_block(cache.device, cache.offset("brick", 1), used);
    put_block(cache.device, SUPER_OFFSET, then);
    edit("brick", 1, at(brick, "bi_use"), 1);
    put_block(cache.device, SUPER_OFFSET, Block{});
    expect_reason(reason);
    expect_done(commit({"--other-device"}), then);
}

// No identity is none, not one that all such caches share.
TEST_P(RevertSuper, NilIdentity)
{
    Block nil = block_of("super", 0);
    const auto uuid = nil.begin() + at(super, "uuid");
    std::fill(uuid, uuid + 16, 0);
    seal(super, nil, super.length(nil));
    put_block(cache.device, SUPER_OFFSET, nil);
    std::filesystem::remove(saved);
    save();
    edit("brick", 1, at(brick, "bi_uuid"), 0x01);
    put_block(cache.device, SUPER_OFFSET, Block{});
    expect_reason("1 of the 1 entries (brick) that are sound in both have another identity on " +
                  cache.device.path() + " than in " + saved);
}

// The tables of the device would be lost. Damaged or not, its block still says which layout it has.
TEST_P(RevertSuper, OfAnotherLayout)
{
    const Block then = block_of("super", 0);
    const std::string kind = GetParam() == "v1" ? "v2" : "v1";
    const TableModel &other = model(kind[1] - '0', "super");
    Block block = make_cache(kind).device.block(SUPER_OFFSET);
    block[other.field("uuid").byte] ^= 0x18;
    const std::string layouts = saved + " is of layout " + GetParam() + ", " + cache.device.path() +
                                " of layout " + kind +
                                ": the super block of another layout is not put back, not even "
                                "with --other-device";
    for (const bool is_sound : {false, true}) {
        SCOPED_TRACE(is_sound);
        if (is_sound) {
            seal(other, block, other.length(block));
        } else {
            flip(cache.device, cache.offset("brick", 1) + at(brick, "bi_uuid"));
        }
        put_block(cache.device, SUPER_OFFSET, block);
        for (const RunResult &run : {revert("super", 0), revert("super", 0, {"--other-device"}),
                                     commit(), commit({"--other-device"})}) {
            EXPECT_EQ(run.status, 1) << run;
            EXPECT_EQ(run.out, "");
            EXPECT_TRUE(run.err == "zu_tierctl: " + layouts + "\n") << run;
        }
        EXPECT_TRUE(block_of("super", 0) == block);
    }
    put_block(cache.device, SUPER_OFFSET, Block{});
    expect_done(commit({"--other-device"}), then);
}

// What a conversion makes of a cache can be undone, but --other-device is not for that.
TEST_P(RevertSuper, OfTheSameCacheBeforeAConversion)
{
    const Block then = block_of("super", 0);
    const std::string kind = GetParam() == "v1" ? "v2" : "v1";
    const TableModel &other = model(kind[1] - '0', "super");
    Block block = make_cache(kind).device.block(SUPER_OFFSET);
    std::copy_n(then.begin() + at(super, "uuid"), 16, block.begin() + at(other, "uuid"));
    seal(other, block, other.length(block));
    put_block(cache.device, SUPER_OFFSET, block);
    EXPECT_EQ(commit({"--other-device"}).status, 1);
    EXPECT_TRUE(block_of("super", 0) == block);
    expect_done(commit(), then);
}

TEST_P(RevertSuper, OptionIsForTheSuperBlockOnly)
{
    expect_complaint(revert("inode", 2, {"--other-device"}), 2,
                     "--other-device is for the super block only");
}

} // namespace
