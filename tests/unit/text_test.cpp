// Text on its way to a stream.

#include "bytes.h"
#include "in_process.h"
#include "zu_tier/record/text.h"

#include <cerrno>
#include <limits>

using namespace tier_test;

namespace {

template <class Write>
std::string written(Write write)
{
    const MemoryStream stream;
    {
        zutr_text out(stream.get());
        write(out);
    }
    return stream.text();
}

TEST(Text, SignedDecimals)
{
    for (const std::int64_t value :
         {std::int64_t{0}, std::int64_t{-1}, std::int64_t{42},
          std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()})
        EXPECT_EQ(written([&](zutr_text &out) { out.signed_decimal(value); }), text("%ld", value));
}

TEST(Text, Hexadecimals)
{
    for (const std::uint64_t value :
         {std::uint64_t{0}, std::uint64_t{0xA}, std::uint64_t{0xCACBCCCD},
          std::numeric_limits<std::uint64_t>::max()})
        EXPECT_EQ(written([&](zutr_text &out) { out.hex(value); }), text("0x%lx", value));
}

TEST(Text, NothingIsLostHoweverItIsCutIntoPieces)
{
    std::string whole;
    for (int i = 0; whole.size() < 30'000; ++i)
        whole += std::to_string(i) + (i % 7 == 0 ? "\n" : ",");
    for (const std::size_t piece :
         {std::size_t{1}, std::size_t{7}, std::size_t{4095}, std::size_t{4096}, std::size_t{4097},
          std::size_t{8192}, whole.size()}) {
        const std::string result = written([&](zutr_text &out) {
            for (std::size_t at = 0; at < whole.size(); at += piece)
                out.put(std::string_view(whole).substr(at, piece));
        });
        EXPECT_EQ(result, whole) << "pieces of " << piece;
    }
}

TEST(Text, RoomAtTheEndOfTheBuffer)
{
    // The buffer has 131072 bytes; text before, at and past its end.
    for (const std::size_t size : {std::size_t{1}, std::size_t{24}, ZUTR_TEXT_ROOM}) {
        for (std::size_t left = 0; left <= size + 1; left += left + 3 < size ? size / 24 + 1 : 1) {
            const std::string before(131072 - left, 'b');
            const std::string piece(size, 'p');
            const std::string result = written([&](zutr_text &out) {
                out.put(before);
                char *to = out.room(size);
                out.advance(std::ranges::copy(piece, to).out);
                out.put("|");
                to = out.room(size);
                *to = '2';
                out.advance(to + 1); // less than there was room for
            });
            EXPECT_EQ(result, before + piece + "|2") << size << " bytes, " << left << " left";
        }
    }
}

TEST(Text, RoomThatIsNotUsedLeavesNothing)
{
    EXPECT_EQ(written([](zutr_text &out) {
                  char *to = out.room(10);
                  *to = 'x';
                  out.advance(to);
                  out.put("y");
              }),
              "y");
}

TEST(Text, EmptyTextWritesNothing)
{
    EXPECT_EQ(written([](zutr_text &out) { out.put(""); }), "");
    EXPECT_EQ(written([](zutr_text &) {}), "");
}

TEST(Text, BytesPassUnchanged)
{
    const std::string bytes("a\0b\xFF%d%s\n", 9);
    EXPECT_EQ(written([&](zutr_text &out) { out.put(bytes); }), bytes);
}

TEST(Text, KeepsItsPlaceBetweenOtherWritesToTheStream)
{
    const MemoryStream stream;
    const std::string large(10'000, 'x');
    std::fputs("before ", stream.get());
    zutr_text(stream.get()).put("first ");
    std::fputs("between ", stream.get());
    {
        zutr_text out(stream.get());
        out.put("second ");
        out.put(large);
    }
    std::fputs(" behind", stream.get());
    EXPECT_EQ(stream.text(), "before first between second " + large + " behind");
}

TEST(Text, FailedWriteIsRemembered)
{
    FILE *full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    std::setvbuf(full, nullptr, _IONBF, 0);
    zutr_text(full).put("");
    EXPECT_EQ(std::ferror(full), 0);
    zutr_text(full).put("x");
    errno = 0;
    EXPECT_NE(std::ferror(full), 0);
    EXPECT_EQ(zutr_output_errno(), ENOSPC);
    std::fclose(full);
    // The first cause stays.
    FILE *read_only = std::fopen("/dev/null", "r");
    ASSERT_NE(read_only, nullptr);
    zutr_text(read_only).put("x");
    EXPECT_NE(std::ferror(read_only), 0);
    EXPECT_EQ(zutr_output_errno(), ENOSPC);
    std::fclose(read_only);
}

TEST(BoundedText, EndsAtTheTerminatorOrTheEndOfTheField)
{
    const char field[4] = {'a', 'b', '\0', 'c'};
    EXPECT_EQ(zutr_bounded(field), "ab");
    EXPECT_EQ(zutr_bounded(field, 2), "ab");
    EXPECT_EQ(zutr_bounded(field, 1), "a");
    EXPECT_EQ(zutr_bounded(field + 2, 2), "");
    const char open_ended[3] = {'x', 'y', 'z'};
    EXPECT_EQ(zutr_bounded(open_ended), "xyz");
    EXPECT_EQ(zutr_bounded(open_ended, 0), "");
}

} // namespace
