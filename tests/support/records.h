#pragma once

// Entries as structures whose members are the fields of a table of the model, in its order.

#include "model.h"

#include <type_traits>
#include <variant>

namespace tier_test {

// Nothing stands for a field that another member fills.
template <class Record>
using Member = std::variant<std::monostate, std::uint8_t Record::*, std::uint16_t Record::*,
                            std::uint32_t Record::*, std::uint64_t Record::*, Uuid Record::*,
                            std::string Record::*>;

// Of the fields after the checksum.
template <class Record>
using RecordMembers = std::vector<Member<Record>>;

// Calls `use` with each field and its member.
template <class Record, class Use>
void for_each_member(const TableModel &table, const RecordMembers<Record> &members, const Use &use)
{
    for (std::size_t i = 0; i < members.size(); ++i)
        std::visit(
            [&](const auto member) {
                if constexpr (!std::is_same_v<decltype(member), const std::monostate>)
                    use(table.fields.at(i + 1), member);
            },
            members[i]);
}

template <class Record>
void put_fields(Block &block, const TableModel &table, const RecordMembers<Record> &members,
                const Record &record)
{
    for_each_member(table, members, [&](const Field &field, const auto member) {
        const auto &value = record.*member;
        using Value = std::remove_cvref_t<decltype(value)>;
        if constexpr (std::is_same_v<Value, Uuid>)
            put_bytes(block, field.byte, value);
        else if constexpr (std::is_same_v<Value, std::string>)
            put_text(block, field.byte, value);
        else
            put_number(block, field, value);
    });
}

template <class Record>
void get_fields(const Block &block, const TableModel &table, const RecordMembers<Record> &members,
                Record &record)
{
    for_each_member(table, members, [&](const Field &field, const auto member) {
        auto &value = record.*member;
        using Value = std::remove_cvref_t<decltype(value)>;
        if constexpr (std::is_same_v<Value, Uuid>)
            value = get_uuid(block, field.byte);
        else if constexpr (std::is_same_v<Value, std::string>)
            value = get_text(block, field);
        else
            value = static_cast<Value>(get_number(block, field));
    });
}

} // namespace tier_test
