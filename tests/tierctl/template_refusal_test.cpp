// Files that zu_tier would not take, entries that have no file, and the words of it all.

#include "template_run.h"
#include "v2_device.h"
#include "v3_device.h"

#include <gtest/gtest.h>

using namespace tier_test;

namespace {

using Notes = std::vector<std::string>;

Template proved(const Device &device, const std::string &table, std::uint64_t no)
{
    TemplateProof proof(device);
    Template made = proof.check(table, no);
    proof.finish();
    return made;
}

// What zu_tier says of the file; the first message begins like that.
void expect_refusal(const Device &device, const std::string &table, std::uint64_t no,
                    const std::string &beginning)
{
    const Template made = proved(device, table, no);
    ASSERT_FALSE(made.refusals.empty());
    EXPECT_TRUE(made.refusals[0].starts_with(beginning)) << made.refusals[0];
}

void expect_taken(const Device &device, const std::string &table, std::uint64_t no)
{
    EXPECT_EQ(proved(device, table, no).refusals, Notes{});
}

void put(Device &device, std::int64_t offset, const Block &block)
{
    device.write(static_cast<std::uint64_t>(offset), block);
}

Device with_brick(const SuperV1 &sb, const std::function<void(Block &)> &change)
{
    Device device = make_v1_device(sb);
    Block block = encode(brick_used(0));
    change(block);
    seal(block, BrickV1::LENGTH);
    put(device, brick_offset(sb, 0), block);
    return device;
}

TEST(TemplateRefusal, PathOfAnotherLength)
{
    const SuperV1 sb = super_v1(1, 1, 1);
    for (const std::string &path :
         {std::string(), std::string(92, 'x'), std::string(94, 'x'), std::string(127, 'x'),
          std::string("a\n\n[ERROR]\n"), std::string("\"\\\x1b[2J")}) {
        const Device device = with_brick(sb, [&path](Block &block) {
            put_text(block, 32, std::string(128, '\0'));
            put_text(block, 32, path);
        });
        expect_refusal(device, "brick", 0,
                       path.find_first_of("\n\"") == std::string::npos
                           ? "bi_brickid(" + path + ") is invalid, expect_len:93"
                           : "\"bi_brickid(");
    }
}

// All of the field is the path; one character is cut off.
TEST(TemplateRefusal, PathWithoutATerminator)
{
    const Device device = with_brick(
        super_v1(1, 1, 1), [](Block &block) { put_text(block, 32, std::string(128, 'x')); });
    const Template made = proved(device, "brick", 0);
    EXPECT_NE(made.file.find("\"bi_brickid\": \"" + std::string(128, 'x') + "\","),
              std::string::npos);
    EXPECT_EQ(made.refusals,
              Notes{"bi_brickid(" + std::string(127, 'x') + ") is invalid, expect_len:93"});
}

TEST(TemplateRefusal, IdentityOfTheSsd)
{
    for (const std::size_t length : {0U, 37U, 39U, 47U}) {
        SuperV1 v1 = super_v1(1, 1, 1);
        SuperV2 v2 = super_v2(1, 1, 1);
        SuperV3 v3 = super_v3(1, 1);
        v1.ssd_uuid = v2.ssd_uuid = v3.ssd_uuid = std::string(length, 'x');
        const std::string why = text("ssd uuid(%s) length(%zu)", v1.ssd_uuid.c_str(), length);
        expect_refusal(make_v1_device(v1), "super", 0, why);
        expect_refusal(make_v2_device(v2), "super", 0, why);
        expect_refusal(make_v3_device(v3), "super", 0, why);
    }
}

TEST(TemplateRefusal, OwnersThatDoNotExist)
{
    const SuperV1 v1 = super_v1(2, 2, 1);
    const Device first = make_v1_device(v1, {}, {inode_used(0, 2)}, {extent_used(0, 2)});
    expect_refusal(first, "inode", 0, "i_no 0 or brick_no 2 is invalid");
    expect_refusal(first, "extent", 0, "te_no 0 or i_no 2 is invalid");
    const SuperV2 v2 = super_v2(2, 2, 1);
    const Device second =
        make_v2_device(v2, {}, {inode_v2_used(0, 0xFFFFFFFF)}, {extent_v2_used(0, 2)});
    expect_refusal(second, "inode", 0,
                   "repiar_file i_no 0 input ino: -1 or brick_no 4294967295 is invalid");
    expect_refusal(second, "extent", 0, "invalid inode no 2");
    const SuperV3 v3 = super_v3(2, 1);
    expect_refusal(make_v3_device(v3, {}, {inode_v3_used(0, 2)}), "inode", 0,
                   "i_no 0 or brick_no 2 is invalid");
}

// Free entries name brick 0 and inode 0 in the eyes of the parser.
TEST(TemplateRefusal, NoBricksAndNoInodes)
{
    expect_refusal(make_v1_device(super_v1(0, 1, 1)), "inode", 0, "i_no 0 or brick_no 0");
    expect_refusal(make_v1_device(super_v1(1, 0, 1)), "extent", 0, "te_no 0 or i_no 0");
    expect_refusal(make_v2_device(super_v2(1, 0, 1)), "extent", 0, "invalid inode no 0");
}

TEST(TemplateRefusal, InodeNumbersThatAreTooLarge)
{
    SuperV2 sb = super_v2(1, 2, 1);
    Device device = make_v2_device(sb);
    sb.inode_cnt = 500001;
    device.write(4096, encode(sb));
    for (const std::uint32_t no : {499999U, 500000U}) {
        const auto offset = static_cast<std::uint64_t>(inode_offset(sb, no));
        device.truncate(offset + BLOCK_SIZE);
        device.write(offset, encode(inode_v2_used(no, 0)));
    }
    TemplateProof proof(device); // to look at all of the device would take long
    EXPECT_EQ(proof.check("inode", 499999).refusals, Notes{});
    EXPECT_FALSE(proof.check("inode", 500000).refusals.empty());
}

// The table begins so far before the device that its last entries lie on it.
TEST(TemplateRefusal, EntriesOfNumbersThatNoFileHas)
{
    SuperV3 sb = super_v3(1, 1);
    const SuperV3 sound = sb;
    Device device = make_v3_device(sb);
    constexpr std::uint64_t NEGATIVE = std::uint64_t{1} << 31;
    sb.inode_cnt = NEGATIVE + 1;
    sb.inode_table_offset = sound.inode_table_offset - NEGATIVE * BLOCK_SIZE;
    device.write(4096, encode(sb));
    device.write(sound.inode_table_offset, encode(inode_v3_used(NEGATIVE, 0)));
    expect_refusal(device, "inode", NEGATIVE, "i_no 2147483648 or brick_no 0 is invalid");

    constexpr std::uint64_t TOO_LONG = std::uint64_t{1} << 32;
    sb.brick_cnt = TOO_LONG + 1;
    sb.brick_table_offset = sound.brick_table_offset - TOO_LONG * BLOCK_SIZE;
    device.write(4096, encode(sb));
    expect_template_failure(device, {"brick", std::to_string(TOO_LONG)}, 1,
                            "no repair file can name brick 4294967296");
}

TEST(TemplateRefusal, PieceLongerThanABlock)
{
    const SuperV2 sb = super_v2(1, 1, 1);
    ExtentV2 extent = extent_v2_used(0, 0);
    extent.maps[5] = {.offset = 1, .clean = 1, .orig_len = sb.block_size + 1, .begin = 2, .cnt = 3};
    Device device = make_v2_device(sb, {}, {}, {extent});
    EXPECT_FALSE(proved(device, "extent", 0).refusals.empty());
    extent.use = 0; // nobody looks
    put(device, extent_offset(sb, 0), encode(extent, sb));
    expect_taken(device, "extent", 0);
}

// Blocks must lie before the next area.
TEST(TemplateRefusal, TablesInAnotherOrder)
{
    const SuperV3 sound = super_v3(1, 1);
    Device device = make_v3_device(sound);
    SuperV3 sb = sound;
    sb.shard_table_offset = sound.extent_table_offset;
    sb.hot_table_offset = sound.shard_table_offset;
    sb.extent_table_offset = sound.hot_table_offset;
    sb.data_offset = 0;
    device.write(4096, encode(sb));
    for (const std::string table : {"shard", "extent"})
        expect_refusal(device, table, 0, "meta_offset: ");
    expect_taken(device, "hot", 0);
    sb.extent_table_offset = sb.hot_table_offset;
    device.write(4096, encode(sb));
    expect_refusal(device, "hot", 0, "meta_offset: ");
}

// The expansion area of V2 in states that no device has.

TEST(TemplateOfExpansion, InodesAndSuperBlock)
{
    SuperV2 sb = super_v2(2, 3, 2);
    set_expansion(sb, 153600, true);
    const Device device = make_v2_device(
        sb, {},
        {inode_v2_used(3, 1), inode_v2(4), inode_v2_used(100000, 1), inode_v2_used(153602, 1)},
        {extent_v2_used(0, 100000)});
    TemplateProof proof(device);
    for (const std::uint64_t no : {3U, 4U, 100000U, 153602U})
        EXPECT_EQ(proof.check("inode", no).refusals, Notes{});
    EXPECT_EQ(proof.check("extent", 0).refusals, Notes{});
    const Template super = proof.check("super", 0);
    EXPECT_EQ(super.changes, Notes{});
    EXPECT_EQ(super.refusals, Notes{});
    proof.finish();
}

TEST(TemplateOfExpansion, AreaThatIsNotInUse)
{
    SuperV2 sb = super_v2(1, 2, 1);
    set_expansion(sb, 153600, false);
    const Device device =
        make_v2_device(sb, {}, {inode_v2(2), inode_v2(153601)}, {extent_v2_used(0, 2)});
    expect_refusal(device, "inode", 2, "invalid inode no 2");
    expect_refusal(device, "extent", 0, "invalid inode no 2");
    expect_taken(device, "super", 0);
}

TEST(TemplateOfExpansion, AreaThatIsNotThere)
{
    SuperV2 sb = super_v2(1, 2, 1);
    set_expansion(sb, 153600, true);
    for (const std::vector<InodeV2> &inodes :
         {std::vector<InodeV2>{}, {inode_v2(2)}, {inode_v2(153601)}})
        EXPECT_FALSE(proved(make_v2_device(sb, {}, inodes), "super", 0).refusals.empty());
    Device cut = make_v2_device(sb, {}, {inode_v2(2), inode_v2(153601)});
    cut.truncate(cut.size() - 1);
    EXPECT_FALSE(proved(cut, "super", 0).refusals.empty());

    set_expansion(sb, 128000, true); // too small
    const Device small = make_v2_device(sb, {}, {inode_v2(2), inode_v2(128001)});
    EXPECT_FALSE(proved(small, "super", 0).refusals.empty());

    Device before_the_data = make_v2_device(super_v2(1, 2, 1));
    set_expansion(sb, 153600, true);
    sb.data_offset = UINT64_MAX - MIB + 1; // the sum wraps
    before_the_data.write(4096, encode(sb));
    expect_refusal(before_the_data, "super", 0, "exp offset(");
}

TEST(TemplateOfExpansion, StatesThatNobodyKnows)
{
    SuperV2 sb = super_v2(1, 1, 1);
    for (const std::uint32_t word : {0xFFFFFFFFU, 0x00004558U, 0x53004558U, 0x53060000U}) {
        Device device = make_v2_device(sb);
        Block block = encode(sb);
        put_u32(block, 140, word);
        put_u32(block, 164, 123);
        seal(block, SuperV2::LENGTH);
        device.write(4096, block);
        const Template made = proved(device, "super", 0);
        EXPECT_EQ(made.refusals.empty(), (word >> 16 & 0xFF) == 0 || (word & 0xFFFF) != 0x4558);
    }
    set_expansion(sb, 153600, true);
    sb.exp_inuse = 0x35;
    const Device device = make_v2_device(sb, {}, {inode_v2(1), inode_v2(153600)});
    EXPECT_EQ(proved(device, "super", 0).changes.at(1), "exp_inode_inuse: \"0x35\" -> \"0x0\"");
}

// Sizes of an extent.

template <class Super>
void expect_unfit(Device device, Super sb, const std::function<void(Super &)> &spoil)
{
    spoil(sb);
    device.write(4096, encode(sb));
    expect_template_failure(device, {"extent", "0"}, 1,
                            "an extent as the super block describes it does not fit its slot, "
                            "zu_tier repairs none of them");
}

TEST(TemplateOfExtents, ThatDoNotFit)
{
    const SuperV1 v1 = super_v1(1, 1, 1);
    for (const std::uint32_t size : {0U, 3U, 4097U, 0xFFFFFFFFU})
        expect_unfit<SuperV1>(make_v1_device(v1), v1,
                              [size](SuperV1 &sb) { sb.extent_size = size; });
    using Spoil = void (*)(SuperV2 &);
    const SuperV2 v2 = super_v2(1, 1, 1);
    for (const Spoil spoil : {Spoil([](SuperV2 &sb) { sb.extent_size = 55; }),
                              Spoil([](SuperV2 &sb) { sb.extent_size = 0xFFFFFFFF; }),
                              Spoil([](SuperV2 &sb) { sb.map_cnt = (4096 - 72) / 16 + 1; }),
                              Spoil([](SuperV2 &sb) { sb.map_cnt = 0xFFFFFFFF; }),
                              Spoil([](SuperV2 &sb) { sb.total_extent_size = 3; }),
                              Spoil([](SuperV2 &sb) { sb.total_extent_size = 4097; })})
        expect_unfit<SuperV2>(make_v2_device(v2), v2, spoil);
}

// One byte less than the fields take: the record fits its slot, and the tool says what is wrong.
TEST(TemplateOfExtents, ThatLackAByte)
{
    SuperV1 v1 = super_v1(1, 1, 1);
    v1.extent_size = 55;
    expect_refusal(make_v1_device(v1), "extent", 0,
                   "sb_extent_size 55 is invalid, expect:[56-4096]");
}

// The largest that fits, and a checksum that does not cover all of it.
TEST(TemplateOfExtents, ThatFit)
{
    for (const std::uint32_t size : {56U, 61U, 4096U}) {
        SuperV1 v1 = super_v1(1, 1, 1);
        v1.extent_size = size;
        ExtentV1 extent = extent_used(0, 0);
        extent.bitmap.resize((size - 56) / 8, 0x8000000000000001U);
        EXPECT_EQ(proved(make_v1_device(v1, {}, {}, {extent}), "extent", 0).changes, Notes{});
    }
    SuperV2 v2 = super_v2(1, 1, 1);
    set_maps(v2, 64);
    v2.extent_size = 56;
    v2.map_cnt = (4096 - 56) / 16;
    v2.total_extent_size = 60;
    ExtentV2 extent = extent_v2_used(0, 0);
    extent.bitmap.clear();
    extent.hot_area.clear();
    expect_taken(make_v2_device(v2, {}, {}, {extent}), "extent", 0);
}

// Words. Everything else is said in those of zu_tierctl diff.

TEST(TemplateWords, BytesHaveTheNamesOfTheirStretches)
{
    const SuperV2 sb = super_v2(1, 1, 1);
    Block block = encode(extent_v2_used(0, 0), sb);
    for (const std::size_t at : {56U, 600U, 700U, 4095U})
        put_u8(block, at, 0xEE);
    Device device = make_v2_device(sb);
    put(device, extent_offset(sb, 0), block);
    Notes bytes;
    for (const std::string &change : proved(device, "extent", 0).changes)
        if (change.starts_with("bytes "))
            bytes.push_back(change.substr(0, change.find(": ")));
    EXPECT_EQ(bytes, (Notes{"bytes 56..63 (bitmap)", "bytes 584..647 (hot area)", "bytes 700..700",
                            "bytes 4095..4095"}));
}

TEST(TemplateWords, ForFlaws)
{
    const SuperV1 sb = super_v1(1, 2, 1);
    Device device = make_v1_device(sb);
    Block block = encode(inode_used(1, 0));
    put_u32(block, 4, 0);
    put_u32(block, 68, 77);
    put(device, inode_offset(sb, 1), block);
    const Template made = proved(device, "inode", 1);
    EXPECT_EQ(made.flaws,
              (Notes{"damaged: magic, number, checksum",
                     "its checksum does not match its content; the file has what is there",
                     "has number 77, the file has 1"}));
    EXPECT_EQ(made.changes.at(0).substr(0, 9), "checksum:");
    EXPECT_EQ(made.changes.at(1), "magic: \"0x0\" -> \"0x494e4f44\"");
    EXPECT_EQ(made.changes.at(2), "no: 77 -> 1");
}

TEST(TemplateWords, ForTextThatIsNotUtf8)
{
    const std::vector<std::pair<std::string, std::string>> cases{
        {"\"\\/", R"(\"\\/)"},
        {"\x01\x1f\t\n\x7f", R"(\u0001\u001f\u0009\u000a\u007f)"},
        {"\u00e4\u07ff\u20ac\uffff\U00010000\U0010ffff\ud7ff\ue000",
         "\u00e4\u07ff\u20ac\uffff\U00010000\U0010ffff\ud7ff\ue000"},
        {"\x80", "\ufffd"},
        {"\xff\xfe", "\ufffd\ufffd"},
        {"\xe2\x82x", "\ufffd\ufffdx"},
        {"\xc0\xaf\xc1\xbf", "\ufffd\ufffd\ufffd\ufffd"},
        {"\xe0\x9f\xbf", "\ufffd\ufffd\ufffd"},
        {"\xed\xa0\x80", "\ufffd\ufffd\ufffd"},
        {"\xf4\x90\x80\x80", "\ufffd\ufffd\ufffd\ufffd"},
        {"\xf0\x9f\x98", "\ufffd\ufffd\ufffd"},
        {"\xc3\xc3\xa4", "\ufffd\u00e4"},
    };
    for (const auto &[stored, json] : cases) {
        SCOPED_TRACE(json);
        const bool valid = json.find("\ufffd") == std::string::npos;
        const Device device = with_brick(super_v1(1, 1, 1), [&](Block &block) {
            put_u32(block, 164, 0);
            put_text(block, 32, std::string(128, '\0'));
            put_text(block, 32, std::string(93 - (valid ? stored : json).size(), '/') + stored);
        });
        const Template made = proved(device, "brick", 0);
        EXPECT_NE(made.file.find('/' + json + "\",\n"), std::string::npos) << made.file;
        EXPECT_EQ(made.flaws, valid ? Notes{}
                                    : Notes{"bi_brickid is not valid UTF-8: the file has "
                                            "U+FFFD for what is not"});
        EXPECT_EQ(made.changes.empty(), valid);
        EXPECT_EQ(made.refusals, Notes{});
    }
}

} // namespace
