// Records printed from tables of their fields, with every form and every type of member.

#include "bytes.h"
#include "in_process.h"
#include "zu_tier/record/record.h"

#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>

using namespace tier_test;

namespace {

struct Record {
    std::uint64_t u64;
    std::int64_t s64;
    std::uint64_t stamp;
    std::uint64_t word;
    std::uint32_t u32;
    std::int32_t s32;
    std::uint16_t u16;
    std::int16_t s16;
    std::uint8_t u8;
    std::uint8_t uuid[16];
    char label[24];
    char mark[1];
};

std::uint64_t doubled(const void *record) { return static_cast<const Record *>(record)->u64 * 2; }

constexpr auto FIELDS = std::tuple{
    zutr_field{"u64", &Record::u64},
    zutr_field{"s64", &Record::s64},
    zutr_field{"u32", &Record::u32},
    zutr_field{"s32", &Record::s32},
    zutr_field{"u16", &Record::u16},
    zutr_field{"s16", &Record::s16},
    zutr_field{"u8", &Record::u8},
    zutr_field{"x64", &Record::u64, zutr_form::hex},
    zutr_field{"x32", &Record::u32, zutr_form::hex},
    zutr_field{"x16", &Record::u16, zutr_form::hex},
    zutr_field{"x8", &Record::u8, zutr_form::hex},
    zutr_field{"time", &Record::stamp, zutr_form::time},
    zutr_field{"both", &Record::stamp, zutr_form::hex_and_time},
    zutr_field{"swapped", &Record::u32, zutr_form::swapped_hex8},
    zutr_field{"uuid", &Record::uuid},
    zutr_field{"label", &Record::label},
    zutr_field{"mark", &Record::mark},
    zutr_computed<Record>{"doubled", doubled},
    zutr_bits{{"low", 0, 1}, &Record::word},
    zutr_bits{{"some", 1, 19}, &Record::word},
    zutr_bits{{"high", 20, 44}, &Record::word},
    zutr_bits{{"word", 0, 64}, &Record::word},
};

constexpr auto ONE_FIELD = std::tuple{zutr_field{"u8", &Record::u8}};
constexpr auto TEXT_FIRST =
    std::tuple{zutr_field{"label", &Record::label}, zutr_field{"x8", &Record::u8, zutr_form::hex}};

std::string bounded(const char *field, std::size_t size) { return {field, strnlen(field, size)}; }

std::string expected_members(const Record &r)
{
    std::uint8_t low_first[4];
    put_u32(low_first, 0, r.u32);
    Uuid uuid;
    std::ranges::copy(r.uuid, uuid.begin());
    const std::string time = time_text(r.stamp);
    std::string all;
    all += text("\"u64\":%lu,\"s64\":%lu,", r.u64, static_cast<std::uint64_t>(r.s64));
    all += text("\"u32\":%u,\"s32\":%u,", r.u32, static_cast<std::uint32_t>(r.s32));
    all += text("\"u16\":%u,\"s16\":%u,", r.u16, static_cast<std::uint16_t>(r.s16));
    all += text("\"u8\":%u,\"x64\":\"0x%lx\",\"x32\":\"0x%x\",", r.u8, r.u64, r.u32);
    all += text("\"x16\":\"0x%x\",\"x8\":\"0x%x\",\"time\":\"%s\",", r.u16, r.u8, time.c_str());
    all += text("\"both\":\"0x%lx(%s)\",", r.stamp, time.c_str());
    all += text("\"swapped\":\"%02x%02x%02x%02x\",", low_first[0], low_first[1], low_first[2],
                low_first[3]);
    all += text("\"uuid\":\"%s\",", uuid_text(uuid).c_str());
    all += text("\"label\":\"%s\",", bounded(r.label, sizeof(r.label)).c_str());
    all += text("\"mark\":\"%s\",", bounded(r.mark, sizeof(r.mark)).c_str());
    all += text("\"doubled\":%lu,", 2 * r.u64);
    all += text("\"low\":%lu,\"some\":%lu,\"high\":%lu,\"word\":%lu", r.word % 2,
                r.word / 2 % (1 << 19), r.word / (1 << 20), r.word);
    return all;
}

Record filled(std::uint8_t byte)
{
    Record record;
    memset(static_cast<void *>(&record), byte, sizeof(record));
    return record;
}

// Zeros, ones, the extremes of signed numbers, texts with and without terminator, noise.
std::vector<Record> records()
{
    std::vector<Record> result{filled(0), filled(0xFF), filled(0x80), filled(0x7F), filled('y')};
    Record least = filled(0);
    least.s64 = std::numeric_limits<std::int64_t>::min();
    least.s32 = std::numeric_limits<std::int32_t>::min();
    least.s16 = std::numeric_limits<std::int16_t>::min();
    least.u32 = 0x12345678;
    memcpy(least.label, "half\0hidden", 12);
    least.mark[0] = 'm';
    result.push_back(least);
    std::mt19937_64 random(7);
    for (int i = 0; i < 200; ++i) {
        Record noise = filled(0);
        for (std::uint64_t *number : {&noise.u64, &noise.stamp, &noise.word})
            *number = random() >> random() % 64;
        noise.s64 = static_cast<std::int64_t>(random());
        noise.u32 = static_cast<std::uint32_t>(random() >> (32 + random() % 32));
        noise.s32 = static_cast<std::int32_t>(random());
        noise.u16 = static_cast<std::uint16_t>(random());
        noise.s16 = static_cast<std::int16_t>(random());
        noise.u8 = static_cast<std::uint8_t>(random());
        memset(noise.label, 'l', random() % (sizeof(noise.label) + 1));
        result.push_back(noise);
    }
    return result;
}

template <const auto &Fields>
std::string fields_of(const Record &record)
{
    const MemoryStream stream;
    {
        zutr_text out(stream.get());
        zutr_put_fields<Fields>(out, record);
    }
    return stream.text();
}

TEST(Record, EveryFormAndType)
{
    for (const Record &record : records())
        EXPECT_EQ(fields_of<FIELDS>(record), expected_members(record));
}

TEST(Record, TablesOfOneAndOfTwoFields)
{
    Record record = filled(0);
    record.u8 = 200;
    EXPECT_EQ(fields_of<ONE_FIELD>(record), "\"u8\":200");
    EXPECT_EQ(fields_of<TEXT_FIRST>(record), "\"label\":\"\",\"x8\":\"0xc8\"");
}

TEST(Record, MembersStayInTheirRoom)
{
    constexpr std::size_t ROOM = ZUTR_FIELDS_ROOM<FIELDS>;
    constexpr std::size_t MARGIN = 64;
    for (const Record &record : records()) {
        std::vector<char> memory(MARGIN + ROOM + MARGIN, '#');
        char *to = memory.data() + MARGIN;
        char *end = zutr_put_members<FIELDS>(to, record);
        EXPECT_EQ(std::string(to, end), expected_members(record));
        const std::string guard(MARGIN, '#');
        EXPECT_EQ(std::string(memory.data(), MARGIN), guard);
        EXPECT_EQ(std::string(memory.data() + MARGIN + ROOM, MARGIN), guard);
    }
}

TEST(Record, EntryIsAnObjectWithItsOffsetLast)
{
    for (const std::int64_t offset :
         {std::int64_t{0}, std::int64_t{4096}, std::numeric_limits<std::int64_t>::max(),
          std::int64_t{-4096}}) {
        const Record record = records().back();
        const MemoryStream stream;
        zutr_print_entry<FIELDS>(record, offset, stream.get());
        EXPECT_EQ(stream.text(),
                  "{" + expected_members(record) + text(",\"meta_offset\":%ld}", offset));
    }
}

TEST(Record, RecordsMayLieAnywhereInTheText)
{
    const std::vector<Record> all = records();
    std::string expected;
    for (const Record &record : all)
        expected += expected_members(record) + ";";
    // Whatever the text before it, some record meets the end of the buffer.
    for (std::size_t front = 0; front < 5000; front += 37) {
        const std::string before(126'000 + front, 'b');
        const MemoryStream stream;
        {
            zutr_text out(stream.get());
            out.put(before);
            for (const Record &record : all) {
                zutr_put_fields<FIELDS>(out, record);
                out.put(";");
            }
        }
        ASSERT_EQ(stream.text(), before + expected) << front;
    }
}

} // namespace
