// What zu_tierctl says of a super block that is damaged: which layout it has, which bits are wrong,
// which commands help.

#include "cache.h"
#include "v3_device.h"

#include <bit>
#include <gtest/gtest.h>

using namespace tier_test;

namespace {

class Diagnosis : public testing::TestWithParam<std::string> {
protected:
    Cache cache = make_cache(GetParam());
    const int version = GetParam().back() - '0';
    const TableModel &super = model(version, "super");
    const Block sound = cache.device.block(SUPER_OFFSET);
    const std::size_t length = super.length(sound);

    // As in the message about a block that has it.
    std::string message(const std::string &reasons, const std::string &option = "") const
    {
        const std::string &path = cache.device.path();
        return path + " has a damaged super block of layout " + GetParam() + ": " + reasons +
               "; what helps: zu_tierctl template " + path + " super 0" + option + ", " +
               super_ways(path);
    }
    // Where a template has the damage, it is no help.
    std::string message_of_lost(const std::string &reasons) const
    {
        const std::string &path = cache.device.path();
        return path + " has a damaged super block of layout " + GetParam() + ": " + reasons +
               "; what helps: " + super_ways(path);
    }

    void expect_said(const Block &block, const std::string &complaint)
    {
        cache.device.write(SUPER_OFFSET, block);
        expect_complaint(run_ctl({"check", cache.device.path()}), 2, complaint);
    }

    static std::string both(std::uint32_t stored, std::uint32_t right)
    {
        return text("0x%x is stored, 0x%x belongs to the content", stored, right);
    }

    // For a block whose layout it does not tell itself.
    std::string option() const { return " --layout " + GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Layouts, Diagnosis, testing::ValuesIn(LAYOUTS));

Block with_bit(Block block, std::size_t byte, unsigned bit)
{
    put_u8(block, byte, static_cast<std::uint8_t>(get_u8(block, byte) ^ 1U << bit));
    return block;
}

TEST_P(Diagnosis, OneBitOfEachField)
{
    std::size_t fields = 0;
    for (const Field &field : super.fields) {
        if (field.form == FieldForm::UNITS || field.name == "checksum" || field.name == "magic" ||
            field.name == "version")
            continue;
        fields++;
        const bool is_text = field.form == FieldForm::TEXT; // which remains printable
        const std::size_t last = is_text ? 0 : field.width / 8 - 1;
        for (const auto &[byte, bit] :
             {std::pair{field.byte, 0U}, {field.byte + last, is_text ? 1U : 6U}}) {
            SCOPED_TRACE(field.name);
            const Block wrong = with_bit(sound, byte, bit);
            expect_said(wrong, message("one bit of " + field.name +
                                       " is wrong: " + shown_value(wrong, field) + " should be " +
                                       shown_value(sound, field)));
        }
    }
    EXPECT_GT(fields, 10U);
}

// After the end of a text nothing shows the bit.
TEST_P(Diagnosis, OneBitThatNoFieldShows)
{
    ASSERT_EQ(get_u8(sound, 64 + 45), 0U);
    expect_said(with_bit(sound, 64 + 45, 3),
                message("one bit of byte 109 is wrong: 0x08 should be 0x00"));
}

TEST_P(Diagnosis, OneBitOfTheChecksum)
{
    const std::uint32_t right = get_u32(sound, 0);
    for (const std::size_t byte : {0U, 3U}) {
        const Block wrong = with_bit(sound, byte, 7);
        expect_said(wrong,
                    message("one bit of its checksum is wrong: " + both(get_u32(wrong, 0), right)));
    }
}

TEST_P(Diagnosis, MoreThanOneBit)
{
    Block wrong = with_bit(with_bit(sound, 50, 0), 51, 0);
    const std::uint32_t stored = get_u32(wrong, 0);
    Block sealed = wrong;
    seal(sealed, length);
    expect_said(wrong, message("its checksum does not match its content, in which more than one "
                               "bit is wrong: " +
                               both(stored, get_u32(sealed, 0))));
    wrong = with_bit(with_bit(sound, 0, 0), 1, 0);
    expect_said(wrong, message("its checksum does not match its content, in which more than one "
                               "bit is wrong: " +
                               both(get_u32(wrong, 0), stored)));
}

TEST_P(Diagnosis, BitsThatNothingExplains)
{
    const Block wrong = with_bit(with_bit(with_bit(sound, 50, 0), 51, 0), 52, 0);
    Block sealed = wrong;
    seal(sealed, length);
    expect_said(wrong, message_of_lost("its checksum does not match its content, in which more "
                                       "than one bit is wrong: " +
                                       both(get_u32(wrong, 0), get_u32(sealed, 0))));
}

TEST_P(Diagnosis, MagicAndVersion)
{
    const std::uint32_t magic = get_u32(sound, 4);
    const std::uint32_t number = get_u32(sound, 112);
    const std::string of_magic =
        text("its magic is 0x%x, not 0x%x: 1 wrong bit", magic ^ 0x80, magic);
    const std::string of_version =
        text("its version is 0x%x, not 0x%x: 1 wrong bit", number ^ 0x400000, number);
    Block wrong = with_bit(sound, 4, 7);
    expect_said(wrong, message(of_magic, option()));
    expect_said(with_bit(sound, 114, 6), message(of_version, option()));
    wrong = with_bit(wrong, 114, 6);
    expect_said(wrong, message(of_magic + ", " + of_version, option()));
    const std::uint64_t was = get_u64(sound, 40);
    expect_said(with_bit(wrong, 40, 1),
                message(of_magic + ", " + of_version + ", one bit of ctime is wrong: " +
                            text("\"0x%lx(%s)\" should be \"0x%lx(%s)\"", was ^ 2,
                                 time_text(was ^ 2).c_str(), was, time_text(was).c_str()),
                        option()));
}

// The checksum tells the layout, whatever magic and version are.
TEST_P(Diagnosis, MagicThatIsZero)
{
    Block wrong = sound;
    put_u32(wrong, 4, 0);
    const std::uint32_t magic = get_u32(sound, 4);
    expect_said(wrong, message(text("its magic is 0x0, not 0x%x: %d wrong bits", magic,
                                    std::popcount(magic)),
                               option()));
}

TEST_P(Diagnosis, UnknownVersion)
{
    Block wrong = sound;
    put_u32(wrong, 112, 0x40000);
    seal(wrong, length);
    const std::uint32_t number = get_u32(sound, 112);
    const int bits = std::popcount(number ^ 0x40000);
    expect_said(wrong,
                message(text("its version is 0x40000, not 0x%x: %d wrong bit%s, its checksum "
                             "is that of the block as it is",
                             number, bits, bits == 1 ? "" : "s"),
                        option()));
}

TEST_P(Diagnosis, BlocksThatResembleNone)
{
    const std::string none = no_super_block(cache.device.path());
    expect_said(Block{}, none);
    Block wrong = sound;
    put_u32(wrong, 4, ~get_u32(sound, 4));
    put_u32(wrong, 40, ~get_u32(sound, 40));
    expect_said(wrong, none);
}

TEST_P(Diagnosis, OfEveryCommand)
{
    const std::string &path = cache.device.path();
    const TempDir directory;
    const std::string saved = directory.path("saved");
    ASSERT_EQ(run_ctl({"save", path, saved}).status, 0);
    const Block wrong = with_bit(sound, 0, 0);
    const std::string said =
        message("one bit of its checksum is wrong: " + both(get_u32(wrong, 0), get_u32(sound, 0)));
    cache.device.write(SUPER_OFFSET, wrong);
    expect_complaint(run_ctl({"map", path}), 1, said);
    expect_complaint(run_ctl({"save", path, directory.path("other")}), 1, said);
    expect_complaint(run_ctl({"template", path, "inode", "0"}), 1, said);
    expect_complaint(run_ctl({"revert", saved, path, "inode", "0"}), 1, said);
    expect_complaint(run_ctl({"diff", saved, path}), 2, said);

    // All commands that help do.
    EXPECT_EQ(run_ctl({"template", path, "super", "0"}).status, 0);
    EXPECT_EQ(run_ctl({"rescue", path}).status, 0);
    EXPECT_EQ(run_ctl({"revert", saved, path, "super", "0", "--commit"}).status, 0);
    EXPECT_EQ(cache.device.block(SUPER_OFFSET), sound);
}

} // namespace
