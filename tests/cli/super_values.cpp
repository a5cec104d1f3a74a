#include "super_values.h"

namespace tier_test {

namespace {

// Gives every number a value; `next` is asked once for each field.
template <class Super, class Next>
void fill(Super &sb, const Next &next)
{
    for (const auto &[key, field] : wide_fields(sb))
        sb.*field = next();
    for (const auto &[key, field] : word_fields(sb))
        sb.*field = static_cast<std::uint32_t>(next());
}

// The fields that no number of a repair file fills.
template <class Next>
void fill_others(SuperV1 &sb, const Next &next)
{
    sb.reserved = static_cast<std::uint32_t>(next());
}

template <class Next>
void fill_others(SuperV2 &sb, const Next &next)
{
    sb.exp_magic = static_cast<std::uint16_t>(next());
    sb.exp_area = static_cast<std::uint8_t>(next());
    sb.exp_inuse = static_cast<std::uint8_t>(next());
    sb.total_extent_size = static_cast<std::uint32_t>(next());
}

// All of them are numbers of a repair file.
template <class Next>
void fill_others(SuperV3 &, const Next &)
{
}

template <class Super>
WordFields<Super> head_words()
{
    return {{"super block size", &Super::size}, {"brick_cnt", &Super::brick_cnt},
            {"inode_cnt", &Super::inode_cnt},   {"block_size", &Super::block_size},
            {"block_cnt", &Super::block_cnt},   {"extent_size", &Super::extent_size}};
}

} // namespace

WideFields<SuperHead> wide_fields(const SuperHead &)
{
    return {{"brick_table_size", &SuperHead::brick_table_size},
            {"inode_table_size", &SuperHead::inode_table_size},
            {"extent_table_size", &SuperHead::extent_table_size},
            {"data_offset", &SuperHead::data_offset}};
}

WideFields<SuperV3> wide_fields(const SuperV3 &)
{
    return {{"sb_offset", &SuperV3::sb_offset},
            {"super block size", &SuperV3::size},
            {"reserved_offset", &SuperV3::reserved_offset},
            {"reserved_size", &SuperV3::reserved_size},
            {"brick_table_offset", &SuperV3::brick_table_offset},
            {"brick_table_size", &SuperV3::brick_table_size},
            {"brick_cnt", &SuperV3::brick_cnt},
            {"inode_table_offset", &SuperV3::inode_table_offset},
            {"inode_table_size", &SuperV3::inode_table_size},
            {"inode_cnt", &SuperV3::inode_cnt},
            {"shard_table_offset", &SuperV3::shard_table_offset},
            {"shard_table_size", &SuperV3::shard_table_size},
            {"shard_table_cnt", &SuperV3::shard_cnt},
            {"extent_table_offset", &SuperV3::extent_table_offset},
            {"extent_table_size", &SuperV3::extent_table_size},
            {"extent_table_cnt", &SuperV3::extent_cnt},
            {"hot_table_offset", &SuperV3::hot_table_offset},
            {"hot_table_size", &SuperV3::hot_table_size},
            {"data_offset", &SuperV3::data_offset},
            {"data_table_size", &SuperV3::data_size},
            {"block_size", &SuperV3::block_size},
            {"block_cnt", &SuperV3::block_cnt}};
}

WordFields<SuperV1> word_fields(const SuperV1 &)
{
    return head_words<SuperV1>();
}

WordFields<SuperV2> word_fields(const SuperV2 &)
{
    WordFields<SuperV2> fields = head_words<SuperV2>();
    fields.emplace_back("min_alloc_size", &SuperV2::min_alloc_size);
    fields.emplace_back("total_map_size", &SuperV2::total_map_size);
    fields.emplace_back("map_cnt", &SuperV2::map_cnt);
    fields.emplace_back("size_mapped_meta", &SuperV2::size_mapped_meta);
    fields.emplace_back("hot_size", &SuperV2::hot_size);
    return fields;
}

WordFields<SuperV3> word_fields(const SuperV3 &)
{
    return {{"reserved", &SuperV3::reserved}};
}

void derive(SuperV1 &sb)
{
    sb.reserved = 0;
}

void derive(SuperV2 &sb)
{
    sb.total_extent_size = sb.extent_size + sb.total_map_size + sb.hot_size; // in 32 bits
}

void derive(SuperV3 &) {}

template <class Super>
Super largest_super()
{
    Super sb;
    const auto all_bits = [] { return ~std::uint64_t{0}; };
    fill(sb, all_bits);
    fill_others(sb, all_bits);
    sb.ctime = all_bits();
    sb.uuid.fill(0xFF);
    return sb;
}

template <class Super>
Super smallest_super()
{
    Super sb;
    const auto zero = [] { return std::uint64_t{0}; };
    fill(sb, zero);
    fill_others(sb, zero);
    sb.ctime = 0;
    sb.uuid.fill(0);
    sb.ssd_uuid = "";
    return sb;
}

template <class Super>
Super numbered_super()
{
    Super sb;
    std::uint64_t last = 10;
    const auto next = [&last] { return ++last; };
    fill(sb, next);
    fill_others(sb, next);
    return sb;
}

template SuperV1 largest_super();
template SuperV2 largest_super();
template SuperV3 largest_super();
template SuperV1 smallest_super();
template SuperV2 smallest_super();
template SuperV3 smallest_super();
template SuperV1 numbered_super();
template SuperV2 numbered_super();
template SuperV3 numbered_super();

} // namespace tier_test
