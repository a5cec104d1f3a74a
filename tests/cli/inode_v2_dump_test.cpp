// What is particular to the dump of the inode table of layout version 2: the frame of a walk and
// the expansion area.

#include "dump_text.h"
#include "table.h"
#include "table_dump.h"

using namespace tier_test;

namespace {

class InodeV2Dump : public TableDump<InodeTableV2> {
protected:
    void set_super(const SuperV2 &changed)
    {
        super = changed;
        device.write(SUPER_OFFSET, encode(super));
    }

    // An area of that many inodes, none of which was ever written.
    void expand(std::uint32_t inodes, bool in_use = false)
    {
        set_expansion(super, inodes, in_use);
        set_super(super);
        device.truncate(static_cast<std::uint64_t>(expansion_offset(super, inodes)));
    }

    void put_inode(const InodeV2 &inode)
    {
        device.write(static_cast<std::uint64_t>(inode_offset(super, inode.no)), encode(inode));
    }

    std::string shown(const InodeV2 &inode) const
    {
        return json(inode, inode_offset(super, inode.no));
    }

    void expect_number(std::uint32_t no, const Expected &expected) const
    {
        SCOPED_TRACE(no);
        Expected whole = expected;
        whole.log = log_head<SuperV2>(device, "dump_inode", {.meta_no = static_cast<int>(no)},
                                      expected.log);
        expect_run(run_logged(device, "dump_inode", {"-n", std::to_string(no)}), whole);
    }

    void expect_beyond(std::uint32_t no, std::uint32_t bound) const
    {
        expect_number(no, {.status = 22,
                           .out = "",
                           .log = {error_line("zutr_dump_common",
                                              text("invalid no %u, max cnt:%u", no, bound))}});
    }

    void expect_not_formatted(std::uint32_t no) const
    {
        const std::string message = text("exp inode not format, invalid inode %u", no);
        expect_number(
            no, {.status = 22, .out = "", .log = {error_line("zutr_dump_inode_v2", message)}});
    }

    void expect_abort_of(const std::vector<std::string> &args, const std::string &condition) const
    {
        expect_abort(run_logged(device, "dump_inode", args), condition);
    }
};

TEST_F(InodeV2Dump, LargestValuesOfTheNewFields)
{
    InodeV2 inode = inode_v2_used(3, 1);
    inode.new_data = ~std::uint64_t{0};
    inode.blocks = ~std::uint64_t{0};
    put(3, inode);
    expect_walk();
    EXPECT_NE(item(3).find("\"new_data\":18446744073709551615,\"blocks\":18446744073709551615,"),
              std::string::npos);
}

TEST_F(InodeV2Dump, WalkIsAnObjectAndASingleInodeIsNot)
{
    put(2, inode_v2_used(2, 1));
    EXPECT_EQ(run_logged(device, "dump_inode", {"-g", "use=1"}).out,
              "{ \"inode\":[" + item(2) + "]}");
    EXPECT_EQ(run_logged(device, "dump_inode", {"-g", "use=7"}).out, "{ \"inode\":[]}");
    EXPECT_EQ(run_logged(device, "dump_inode", {"-n", "2"}).out, item(2));
}

TEST_F(InodeV2Dump, NumberBehindTheTableWithoutAnExpansionArea)
{
    const Device large = make_v2_device(super_v2(1, 1000, 1));
    expect_run(
        run_logged(large, "dump_inode", {"-n", "1000"}),
        {.status = 22,
         .out = "",
         .log = log_head<SuperV2>(
             large, "dump_inode", {.meta_no = 1000},
             {error_line("zutr_dump_inode_v2", "exp inode not format, invalid inode 1000")})});
}

// The other fields of the area say nothing without its magic.
TEST_F(InodeV2Dump, AreaWithoutItsMagicIsNotThere)
{
    expand(25600, true);
    for (const std::uint16_t magic :
         std::initializer_list<std::uint16_t>{0, 1, 0x4559, 0x5845, 0xFFFF}) {
        super.exp_magic = magic;
        set_super(super);
        expect_walk();
        expect_not_formatted(6);
        expect_not_formatted(0x7FFFFFFF);
        expect_single(5);
    }
}

TEST_F(InodeV2Dump, SingleInodesOfBothRegions)
{
    for (const bool in_use : {false, true}) {
        expand(25600, in_use);
        for (const std::uint32_t no : {0U, 5U, 6U, 7U, 6U + 25599U}) {
            for (const InodeV2 &inode : {inode_v2(no), inode_v2_used(no, 3)}) {
                put_inode(inode);
                expect_number(no, {.status = 0, .out = shown(inode), .log = {}});
            }
        }
        expect_beyond(6 + 25600, 6 + 25600);
        expect_beyond(0x7FFFFFFF, 6 + 25600);
    }
}

TEST_F(InodeV2Dump, FaultyInodeOfTheExpansionArea)
{
    expand(51200);
    InodeV2 misplaced = inode_v2_used(0, 1); // numbered from the area's start
    InodeV2 damaged = inode_v2_used(6, 1);
    damaged.checksum = good_checksum(damaged) ^ 1U;
    InodeV2 never_written;
    never_written.magic = 0;
    never_written.checksum = 0;
    for (const InodeV2 &inode : {misplaced, damaged, never_written}) {
        device.write(static_cast<std::uint64_t>(expansion_offset(super, 0)), encode(inode));
        expect_number(6, {.status = 14,
                          .out = "",
                          .log = {table.faulty(6, super, inode), raw_text(json(inode, 0))}});
    }
}

// The bounds of inodes that can be repaired are not those of inodes that are shown.
TEST_F(InodeV2Dump, LargestAreaIsShownToItsEnd)
{
    super.block_size = 4194304;
    set_super(super);
    expand(255 * 25600);
    for (const std::uint32_t no : {499'999U, 500'000U, 6 + 255 * 25600U - 1}) {
        const InodeV2 inode = inode_v2_used(no, 1);
        put_inode(inode);
        expect_number(no, {.status = 0, .out = shown(inode), .log = {}});
    }
    expect_beyond(6 + 255 * 25600, 6 + 255 * 25600);
}

TEST_F(InodeV2Dump, AreaOfNoInodes)
{
    expand(0);
    expect_abort_of({}, "params && meta_type && max_cnt > 0 && format_func");
    expect_beyond(6, 6);
    expect_single(5);
}

TEST_F(InodeV2Dump, AreaMustLieOnTheDevice)
{
    const std::uint64_t behind_data = std::uint64_t{super.block_size} * super.block_cnt + MIB;
    for (const std::uint64_t data_offset :
         {std::uint64_t{0} - behind_data, std::uint64_t{0} - behind_data - BLOCK_SIZE,
          std::uint64_t{1} << 63, (std::uint64_t{1} << 63) - behind_data}) {
        super.data_offset = data_offset;
        set_super(super);
        for (const std::vector<std::string> &args : {std::vector<std::string>{}, {"-n", "0"}})
            expect_abort_of(args, "exp_inode_off > 0");
    }
    super.data_offset = std::uint64_t{0} - behind_data + BLOCK_SIZE;
    set_super(super);
    expect_walk();
}

TEST_F(InodeV2Dump, AreaMustBeAligned)
{
    super.data_offset += 512;
    expand(25600);
    expect_abort_of({}, "meta_start % SIZE_4K == 0");
    expect_abort_of({"-n", "6"}, "meta_start % SIZE_4K == 0");
    expect_single(5);
}

// Walks over a table of two inodes and an area of 25600, free but for a few.
class InodeV2Expansion : public testing::Test {
protected:
    static constexpr std::uint32_t COUNT = 25600;
    static constexpr std::uint32_t REGULAR = 2;

    const InodeTableV2 &table = tier_test::table<SuperV2, InodeV2>();
    SuperV2 super = expanded();
    std::vector<InodeV2> used{inode_v2_used(1, 1), inode_v2_used(REGULAR, 1),
                              inode_v2_used(REGULAR + 300, 0),
                              inode_v2_used(REGULAR + COUNT - 1, 1)};
    Device device = make_v2_device(super, {}, used, {}, Expansion::FORMATTED);

    static SuperV2 expanded()
    {
        SuperV2 sb = super_v2(2, REGULAR, 1);
        sb.block_size = 262144;
        set_expansion(sb, COUNT, false);
        return sb;
    }

    // Every inode by its number.
    std::vector<InodeV2> inodes() const
    {
        std::vector<InodeV2> all;
        for (std::uint32_t no = 0; no < REGULAR + COUNT; ++no)
            all.push_back(inode_v2(no));
        for (const InodeV2 &inode : used)
            all[inode.no] = inode;
        return all;
    }

    std::string shown(const InodeV2 &inode) const
    {
        return json(inode, inode_offset(super, inode.no));
    }

    static std::string framed(const std::vector<std::string> &regular,
                              const std::vector<std::string> &expansion)
    {
        return "{ \"inode\":" + joined(regular) + ", \"exp_inode\":" + joined(expansion) + "}";
    }
};

TEST_F(InodeV2Expansion, IsShownWhetherInUseOrNot)
{
    std::vector<std::string> regular;
    std::vector<std::string> expansion;
    for (const InodeV2 &inode : inodes())
        (inode.no < REGULAR ? regular : expansion).push_back(shown(inode));
    for (const std::uint8_t in_use : std::initializer_list<std::uint8_t>{0, 0x53}) {
        super.exp_inuse = in_use;
        device.write(SUPER_OFFSET, encode(super));
        expect_run(run_logged(device, "dump_inode"),
                   {.status = 0,
                    .out = framed(regular, expansion),
                    .log = log_head<SuperV2>(device, "dump_inode")});
    }
}

TEST_F(InodeV2Expansion, FiltersHoldInBothRegions)
{
    const Settings filter{.use = 1, .owner = 1};
    std::vector<std::string> regular;
    std::vector<std::string> expansion;
    Log log = log_head<SuperV2>(device, "dump_inode", filter);
    for (const InodeV2 &inode : inodes()) {
        if (table.hides(filter, super, inode))
            log.push_back(table.hidden(inode.no, super, inode));
        else
            (inode.no < REGULAR ? regular : expansion).push_back(shown(inode));
    }
    ASSERT_EQ(expansion.size(), 2U);
    expect_run(run_logged(device, "dump_inode", {"-g", "use=1,owner=1"}),
               {.status = 0, .out = framed(regular, expansion), .log = log});
}

// Numbers continue those of the regular table, offsets begin anew after the data area.
TEST_F(InodeV2Expansion, FaultyInodesHaveTheirNumberAndOffset)
{
    Log log = log_head<SuperV2>(device, "dump_inode", {.use = 1});
    std::vector<std::string> regular;
    std::vector<std::string> expansion;
    std::vector<InodeV2> all = inodes();
    for (const std::uint32_t no :
         {0U, REGULAR, REGULAR + 255, REGULAR + 256, REGULAR + COUNT - 1}) {
        all[no] = inode_v2_used(no - 1, 1);
        device.write(static_cast<std::uint64_t>(inode_offset(super, no)), encode(all[no]));
    }
    for (std::uint32_t no = 0; no < all.size(); ++no) {
        const InodeV2 &inode = all[no];
        std::vector<std::string> &items = no < REGULAR ? regular : expansion;
        if (inode.no != no) {
            log.push_back(table.faulty(no, super, inode));
            log.push_back(raw_text(json(inode, 0)));
            items.push_back(error_record(14, "no", no, inode_offset(super, no)));
        } else if (inode.use == 0) {
            log.push_back(table.hidden(no, super, inode));
        } else {
            items.push_back(shown(inode));
        }
    }
    expect_run(run_logged(device, "dump_inode", {"-g", "use=1"}),
               {.status = 0, .out = framed(regular, expansion), .log = log});
}

} // namespace
