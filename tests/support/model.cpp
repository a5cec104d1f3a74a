#include "model.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace tier_test {

namespace {

std::uint64_t low_bits(unsigned width)
{
    return width == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << width) - 1;
}

std::uint64_t turned(std::uint64_t value, const Field &field)
{
    return field.form == FieldForm::REVERSED ? __builtin_bswap32(static_cast<std::uint32_t>(value))
                                             : value;
}

std::uint64_t to_signed(long double value, int bits)
{
    const long double bound = std::ldexp(1.0L, bits - 1);
    const long double whole = std::trunc(value);
    if (whole >= -bound && whole < bound)
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(whole));
    return std::uint64_t{1} << (bits - 1);
}

std::string quoted(const std::string &plain) { return '"' + plain + '"'; }

// A V3 extent block without its checksum.
Block without_checksum(Block block)
{
    for (std::size_t bit = 0; bit < 32; ++bit)
        block[8 * bit] &= 0xFE;
    return block;
}

} // namespace

std::uint64_t get_number(const Block &block, const Field &field, std::size_t base)
{
    std::uint64_t word = 0;
    for (std::size_t i = (field.shift + field.width + 7) / 8; i-- > 0;)
        word = word << 8 | get_u8(block, base + field.byte + i);
    return turned(word >> field.shift & low_bits(field.width), field);
}

void put_number(Block &block, const Field &field, std::uint64_t value, std::size_t base)
{
    const std::uint64_t bits = turned(value & low_bits(field.width), field) << field.shift;
    const std::uint64_t kept = ~(low_bits(field.width) << field.shift);
    for (std::size_t i = 0; i < (field.shift + field.width + 7) / 8; ++i) {
        const std::size_t at = base + field.byte + i;
        put_u8(block, at,
               static_cast<std::uint8_t>((get_u8(block, at) & kept >> 8 * i) | bits >> 8 * i));
    }
}

std::string get_text(const Block &block, const Field &field)
{
    return get_text(ConstByteSpan(block).subspan(field.byte, field.width / 8), 0);
}

std::string shown_value(const Block &block, const Field &field)
{
    if (field.form == FieldForm::TEXT)
        return quoted(get_text(block, field).substr(0, field.width / 8 - 1));
    if (field.form == FieldForm::UUID)
        return quoted(uuid_text(get_uuid(block, field.byte)));
    const std::uint64_t number = get_number(block, field);
    switch (field.form) {
    case FieldForm::HEX:
        return text("\"0x%lx\"", number);
    case FieldForm::TIME:
        return quoted(time_text(number));
    case FieldForm::HEX_AND_TIME:
        return text("\"0x%lx(%s)\"", number, time_text(number).c_str());
    case FieldForm::REVERSED:
        return text("\"%08lx\"", number);
    case FieldForm::UNITS:
        return std::to_string(number * EXPANSION_UNIT);
    default:
        return std::to_string(number);
    }
}

std::uint64_t convert(Conversion conversion, long double value)
{
    if (conversion == Conversion::SIGNED_32)
        return to_signed(value, 32);
    if (conversion == Conversion::UNSIGNED_64 && value >= 0x1p63L)
        return to_signed(value - 0x1p63L, 64) | BIT_63;
    return to_signed(value, 64);
}

const Field &TableModel::field(const std::string &of) const
{
    const auto found = std::ranges::find(fields, of, &Field::name);
    if (found == fields.end())
        throw std::invalid_argument(name + ": " + of);
    return *found;
}

std::int64_t expansion_start(const Block &super_v2)
{
    return static_cast<std::int64_t>(
        get_u64(super_v2, 32) + std::uint64_t{get_u32(super_v2, 128)} * get_u32(super_v2, 132) +
        MIB);
}

std::int64_t slot_offset(const TableModel &table, const Block &super, std::uint64_t no)
{
    const std::uint64_t count = table.count(super);
    if (table.version == 2 && table.name == "inode" && no >= count)
        return expansion_start(super) + static_cast<std::int64_t>((no - count) * BLOCK_SIZE);
    return static_cast<std::int64_t>(table.start(super) + no * BLOCK_SIZE);
}

std::uint32_t stored_checksum(const TableModel &table, const Block &block)
{
    if (table.checksum == Checksum::HEAD)
        return get_u32(block, 0);
    std::uint32_t checksum = 0;
    for (std::uint32_t bit = 0; bit < 32; ++bit)
        checksum |= (block[8 * bit] & 1U) << bit;
    return checksum;
}

std::uint32_t computed_checksum(const TableModel &table, const Block &block, std::size_t length)
{
    return table.checksum == Checksum::HEAD ? record_crc(block, length)
                                            : crc32(without_checksum(block));
}

void seal(const TableModel &table, Block &block, std::size_t length,
          std::optional<std::uint32_t> given)
{
    if (table.checksum == Checksum::NONE || length < 4) // a record without a size has no room
        return;
    const std::uint32_t checksum = given ? *given : computed_checksum(table, block, length);
    if (table.checksum == Checksum::HEAD)
        return put_u32(block, 0, checksum);
    block = without_checksum(block);
    for (std::uint32_t bit = 0; bit < 32; ++bit)
        block[8 * bit] |= static_cast<std::uint8_t>(checksum >> bit & 1U);
}

void seal(const TableModel &table, const Block &super, Block &block)
{
    seal(table, block, table.length(super));
}

std::string entry_text(const TableModel &table, const Block &super, const Block &block,
                       std::int64_t offset)
{
    std::string line;
    for (const Field &field : table.fields)
        line.append(line.empty() ? "{" : ",")
            .append(quoted(field.name) + ":" + shown_value(block, field));
    return line + table.tail(super, block, offset);
}

std::string id_of(const TableModel &table, const Block &block)
{
    const Field &id = table.field(table.id);
    return id.form == FieldForm::UUID ? uuid_text(get_uuid(block, id.byte)) : get_text(block, id);
}

bool filter_hides(const TableModel &table, const Settings &filter, const Block &block)
{
    const std::uint64_t use = get_number(block, table.field(table.use));
    const auto differs = [](int wanted, std::uint64_t value) {
        return wanted >= 0 && static_cast<std::uint64_t>(wanted) != value;
    };
    return filter.error == 1 || differs(filter.use, use) ||
           (!table.id.empty() && !filter.id.empty() && filter.id != id_of(table, block)) ||
           // An owner filter hides free entries.
           (!table.owner.empty() && filter.owner >= 0 &&
            (use == 0 || differs(filter.owner, get_number(block, table.field(table.owner)))));
}

std::size_t broken_rule(const TableModel &super_table, const Block &super)
{
    const auto &rules = super_table.rules;
    return static_cast<std::size_t>(
        std::ranges::find_if(rules, [&](const SuperRule &rule) { return !rule.holds(super); }) -
        rules.begin());
}

} // namespace tier_test
