#include "parsed.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <strings.h>

namespace tier_test {

namespace {

constexpr const char *ADDRESS = "<address>";
constexpr const char *NO_ERROR = "Success"; // the text of no error

using Members = std::vector<std::pair<std::string, std::string>>;

std::string trimmed(std::string_view text)
{
    constexpr std::string_view BLANKS = " \t\r\n";
    const std::size_t first = text.find_first_not_of(BLANKS);
    return first == std::string_view::npos
               ? std::string()
               : std::string(text.substr(first, text.find_last_not_of(BLANKS) + 1 - first));
}

// The parts of what stands between brackets, which commas separate.
std::vector<std::string> parts(std::string_view json)
{
    std::vector<std::string> found;
    int depth = 0;
    bool in_string = false;
    std::size_t begin = 0;
    for (std::size_t i = 0; i < json.size(); ++i) {
        const char c = json[i];
        if (in_string && c == '\\')
            ++i;
        else if (c == '"')
            in_string = !in_string;
        else if (in_string)
            continue;
        else if (c == '{' || c == '[')
            ++depth;
        else if (c == '}' || c == ']')
            --depth;
        else if (c == ',' && depth == 0) {
            found.push_back(trimmed(json.substr(begin, i - begin)));
            begin = i + 1;
        }
    }
    if (const std::string last = trimmed(json.substr(begin)); !found.empty() || !last.empty())
        found.push_back(last);
    return found;
}

std::string between_brackets(const std::string &json, char open)
{
    if (json.empty() || json.front() != open)
        throw std::invalid_argument(json);
    return json.substr(1, json.size() - 2);
}

std::string unquoted(const std::string &json) { return between_brackets(json, '"'); }

bool is_number(const std::string &json)
{
    return json.front() == '-' || std::isdigit(static_cast<unsigned char>(json.front())) != 0;
}

// The first of the members of that name, in whatever case.
const std::string *find(const Members &members, const std::string &name)
{
    const auto found = std::ranges::find_if(members, [&](const auto &member) {
        return strcasecmp(member.first.c_str(), name.c_str()) == 0;
    });
    return found == members.end() ? nullptr : &found->second;
}

std::optional<Uuid> uuid_of(const std::string &text)
{
    Uuid uuid{};
    if (text.size() != 36)
        return {};
    std::string digits;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : std::isxdigit(static_cast<unsigned char>(text[i])) == 0)
            return {};
        if (!dash)
            digits += text[i];
    }
    for (std::size_t i = 0; i < uuid.size(); ++i)
        uuid[i] = static_cast<std::uint8_t>(std::stoul(digits.substr(2 * i, 2), nullptr, 16));
    return uuid;
}

struct Refusal {
    std::string text;
    std::string func{}; // that reports it, if it is not the parser
};

class Parse {
public:
    Parse(const TableModel &table, const Block &super, const ParseOptions &options)
        : table_(table), super_(super), options_(options)
    {
    }

    Parsed run(const Members &file)
    {
        try {
            read(file);
        } catch (const Refusal &refusal) {
            const bool elsewhere = !refusal.func.empty();
            result_.log.push_back(
                error_line(elsewhere ? refusal.func : table_.parser, refusal.text));
            if (elsewhere)
                result_.log.push_back(
                    error_line(table_.parser,
                               text("repair super exp inode failed, cmd: %d", table_.repair_code)));
        }
        return result_;
    }

private:
    void read(const Members &file)
    {
        if (table_.magic != 0)
            put_u32(block_, 4, table_.magic);
        if (table_.takes_place)
            read_place(file);
        for (const Key &key : table_.keys)
            if (key.need == Need::ALWAYS || !is_free())
                read_key(key, find(file, key.name));
        if (table_.name == "extent" && table_.version == 1 && !is_free())
            read_bitmap(find(file, "te_bitmap"));
        if (table_.items && !is_free())
            read_items(*table_.items, find(file, table_.items->name));
        finish();
    }

    void finish()
    {
        result_.is_free = is_free();
        if (table_.name == "super" && table_.version == 2)
            put_u32(block_, 164,
                    get_u32(block_, 136) + get_u32(block_, 148) + get_u32(block_, 160));
        if (table_.name == "super" && !options_.forced) {
            if (const std::size_t broken = broken_rule(table_, block_);
                broken < table_.rules.size()) {
                result_.log.push_back(
                    error_line(table_.checker, table_.rules[broken].sentence(block_)));
                return;
            }
        }
        if (table_.bounds) {
            const Log errors = table_.bounds(super_, block_, options_.meta_no);
            result_.log.insert(result_.log.end(), errors.begin(), errors.end());
            if (!errors.empty())
                return;
        }
        if (table_.name == "super")
            result_.place = SUPER_OFFSET;
        else if (!table_.takes_place)
            result_.place = entry_place();
        if (result_.place < 0) {
            result_.status = 14;
            throw Refusal{text("entry offset %ld is invalid", result_.place)};
        }
        seal(table_, super_, block_);
        result_.block = block_;
    }

    std::int64_t entry_place() const
    {
        const Field &number = table_.field(table_.number);
        auto no = get_number(block_, number);
        if (table_.version == 3 && number.width == 32 && table_.name == "inode")
            no = static_cast<std::uint64_t>(
                std::int64_t{static_cast<std::int32_t>(static_cast<std::uint32_t>(no))});
        return slot_offset(table_, super_, no);
    }

    bool is_free() const
    {
        return !table_.use.empty() && !table_.takes_place &&
               get_number(block_, table_.field(table_.use)) == 0;
    }

    void log(const Key &key, const std::string &value)
    {
        result_.log.push_back(
            debug_line(key.func.empty() ? table_.parser : key.func, key.name + ": " + value));
    }

    // The JSON text of the key, which is nothing if it is optional and missing.
    static const std::string *checked(const Key &key, const std::string *given)
    {
        if (given == nullptr && key.need == Need::OPTIONAL)
            return nullptr;
        if (given == nullptr || (key.is_number() ? !is_number(*given) : given->front() != '"'))
            throw Refusal{"parse " + key.name + " failed", key.func};
        return given;
    }

    static std::uint64_t number_of(const Key &key, const std::string &json)
    {
        return convert(key.conversion, std::strtold(json.c_str(), nullptr));
    }

    void read_key(const Key &key, const std::string *given)
    {
        if (!key.func.empty())
            return read_expansion(key, given);
        if (key.name == "min_alloc_size")
            check_version_v2();
        const std::string *const json = checked(key, given);
        if (json == nullptr) {
            if (key.fallback != nullptr)
                put_number(block_, key.field, key.fallback(block_));
        } else if (key.is_number()) {
            read_number(key, number_of(key, *json));
        } else {
            read_string(key, unquoted(*json));
        }
    }

    void read_number(const Key &key, std::uint64_t value)
    {
        put_number(block_, key.field, value);
        const std::uint64_t stored = get_number(block_, key.field);
        log(key,
            std::to_string(key.shows_sign
                               ? static_cast<std::uint64_t>(std::int64_t{
                                     static_cast<std::int32_t>(static_cast<std::uint32_t>(stored))})
                               : stored));
    }

    void read_string(const Key &key, const std::string &given)
    {
        if (key.field.form == FieldForm::UUID) {
            const std::optional<Uuid> uuid = uuid_of(given);
            if (!uuid)
                throw Refusal{"parse uuid " + given + " failed:-1"};
            put_bytes(block_, key.field.byte, *uuid);
            return log(key, uuid_text(*uuid));
        }
        const std::string cut = given.substr(0, key.most);
        if (key.field.form != FieldForm::TEXT)
            return read_hex(key, cut);
        put_text(block_, key.field.byte, cut);
        log(key, cut);
        if (key.length != 0 && cut.size() != key.length)
            throw Refusal{text("%s(%s) is invalid, expect_len:%zu", key.name.c_str(), cut.c_str(),
                               key.length)};
    }

    void read_hex(const Key &key, const std::string &cut)
    {
        errno = 0;
        const std::uint64_t value = std::strtoull(cut.c_str(), nullptr, 16);
        const char *const why = errno == ERANGE ? "Numerical result out of range" : NO_ERROR;
        if (errno == ERANGE || (key.exactly != 0 && value != key.exactly))
            throw Refusal{text("%s %s is invalid:%s. cmd:%d",
                               key.name == "version" ? "version str" : key.name.c_str(),
                               cut.c_str(), why, table_.repair_code)};
        put_number(block_, key.field, value);
        log(key, cut);
        if (key.name == "version")
            version_ = static_cast<std::uint32_t>(value);
    }

    // V2 looks at the version when the keys of the head have been read.
    void check_version_v2()
    {
        if (version_ && *version_ != 0x20000)
            throw Refusal{text("version %u is invalid, cmd:%d", *version_, table_.repair_code)};
    }

    // A count with a magic that is not the area's removes the area: nothing is stored.
    void read_expansion(const Key &key, const std::string *given)
    {
        check_version_v2();
        if (key.name == "exp_inode_cnt") {
            const std::string *const json = checked(key, given);
            expansion_ = json == nullptr ? 0 : static_cast<std::uint32_t>(number_of(key, *json));
            if (json != nullptr)
                log(key, std::to_string(expansion_));
        } else if (expansion_ != 0 && key.name == "exp_inode_magic") {
            const std::string magic = unquoted(*checked(key, given)).substr(0, key.most);
            log(key, magic);
            if (magic.starts_with("0x4558"))
                throw std::logic_error("whether an area is formatted depends on the device");
        }
    }

    void read_place(const Members &file)
    {
        const Key key{.name = "meta_offset",
                      .field = {"meta_offset", 0, 64},
                      .conversion = Conversion::UNSIGNED_64};
        const std::uint64_t value = number_of(key, *checked(key, find(file, key.name)));
        log(key, std::to_string(value));
        result_.place = static_cast<std::int64_t>(value);
        if (value < table_.start(super_) || value >= table_.end(super_))
            throw Refusal{text("meta_offset: %ld invalid", result_.place)};
    }

    // The words that have room in the record, no more and no less.
    void read_bitmap(const std::string *given)
    {
        const int wanted = (static_cast<int>(get_u32(super_, 136)) - 56) / 8;
        const bool is_array = given != nullptr && given->front() == '[';
        const std::vector<std::string> words =
            is_array ? json_items(*given) : std::vector<std::string>();
        if (!is_array || std::ssize(words) != wanted)
            throw Refusal{text("te_bitmap is invalid. bitmap:%s, cnt:%d",
                               given == nullptr ? "(nil)" : ADDRESS, wanted)};
        for (std::size_t i = 0; i < words.size(); ++i) {
            if (!is_number(words[i]))
                throw Refusal{text("te_bitmap index %zu is invalid, value:%s", i, ADDRESS)};
            put_u64(block_, 56 + 8 * i,
                    convert(Conversion::UNSIGNED_64, std::strtold(words[i].c_str(), nullptr)));
        }
    }

    void read_items(const Items &items, const std::string *given)
    {
        if (given == nullptr || given->front() != '[')
            throw Refusal{items.invalid + (given == nullptr ? "(nil)" : ADDRESS)};
        const std::vector<std::string> all = json_items(*given);
        if (items.room != 0 && all.size() > items.room)
            throw Refusal{counted(items.too_many, all.size())};
        for (std::size_t i = 0; i < all.size(); ++i) {
            if (all[i].front() != '{')
                throw Refusal{counted(items.item_invalid, i)};
            read_item(items, json_members(all[i]), i);
        }
    }

    static std::string counted(std::string format, std::size_t number)
    {
        return format.replace(format.find("%zu"), 3, std::to_string(number));
    }

    void read_item(const Items &items, const Members &item, std::size_t index)
    {
        std::uint64_t number = 0;
        std::size_t place = 0;
        for (const Key &key : items.keys) {
            const bool first = &key == &items.keys.front();
            const std::string *const json = checked(key, find(item, key.name));
            if (json == nullptr)
                continue;
            const std::uint64_t value =
                number_of(key, *json) &
                (key.field.width == 64 ? ~std::uint64_t{0}
                                       : (std::uint64_t{1} << key.field.width) - 1);
            log(key, std::to_string(value));
            if (first)
                number = value;
            if (const std::string why = items.refusal(super_, key, value, index, number);
                !why.empty())
                throw Refusal{why};
            if (first)
                place = *items.place(super_, number);
            else
                put_number(block_, key.field, value, place);
        }
        if (items.in_use)
            put_number(block_, *items.in_use, 1, place);
    }

    const TableModel &table_;
    const Block &super_;
    const ParseOptions options_;
    Block block_{};
    std::optional<std::uint32_t> version_;
    std::uint32_t expansion_ = 0;
    Parsed result_;
};

std::string key_value(const Key &key, const Block &block, std::size_t base = 0)
{
    if (key.is_number())
        return std::to_string(get_number(block, key.field, base) *
                              (key.field.form == FieldForm::UNITS ? EXPANSION_UNIT : 1));
    return shown_value(block, key.field);
}

std::string item_text(const Items &items, const Block &block, std::uint64_t number,
                      std::size_t place)
{
    RepairFile item;
    item.number(items.keys.front().name, number);
    for (std::size_t i = 1; i < items.keys.size(); ++i)
        item.set(items.keys[i].name, key_value(items.keys[i], block, place));
    return item.text();
}

std::string array_of(const std::vector<std::string> &items)
{
    std::string array;
    for (const std::string &item : items)
        array.append(array.empty() ? "" : ",").append(item);
    return '[' + array + ']';
}

// Pieces that hold anything, or words in use.
std::string items_text(const TableModel &table, const Block &super, const Block &block)
{
    const Items &items = *table.items;
    const std::uint64_t count = table.is_packed() ? SLOTS_V3 : get_u32(super, 152);
    std::vector<std::string> texts;
    for (std::uint64_t no = table.first_slot; no < count; ++no) {
        const std::size_t place = *items.place(super, no);
        const bool used = items.in_use
                              ? get_number(block, *items.in_use, place) != 0
                              : get_u64(block, place) != 0 || get_u64(block, place + 8) != 0;
        if (used)
            texts.push_back(item_text(items, block, no, place));
    }
    return array_of(texts);
}

std::string bitmap_text(const Block &super, const Block &block)
{
    std::vector<std::string> words;
    for (std::size_t at = 56; at + 8 <= get_u32(super, 136); at += 8)
        words.push_back(std::to_string(get_u64(block, at)));
    return array_of(words);
}

} // namespace

Members json_members(std::string_view object)
{
    Members members;
    for (const std::string &part : parts(between_brackets(trimmed(object), '{'))) {
        const std::size_t end = part.find('"', 1);
        members.emplace_back(part.substr(1, end - 1),
                             trimmed(part.substr(part.find(':', end) + 1)));
    }
    return members;
}

std::vector<std::string> json_items(std::string_view array)
{
    return parts(between_brackets(trimmed(array), '['));
}

Uuid shown_uuid(const std::string &line)
{
    static const std::string KEY = "\"bi_uuid\":\"";
    const std::size_t at = line.find(KEY);
    return at == std::string::npos ? Uuid{}
                                   : uuid_of(line.substr(at + KEY.size(), 36)).value_or(Uuid{});
}

Parsed parsed(const TableModel &table, const Block &super, const std::string &document,
              const ParseOptions &options)
{
    return Parse(table, super, options).run(json_members(document));
}

RepairFile repair_file(const TableModel &table, const Block &super, const Block &block,
                       std::int64_t offset)
{
    const bool is_free =
        !table.use.empty() && !table.takes_place && get_number(block, table.field(table.use)) == 0;
    const bool expansion = table.name == "super" && table.version == 2 && get_u16(block, 140) != 0;
    RepairFile file;
    if (table.takes_place)
        file.set("meta_offset", std::to_string(offset));
    for (const Key &key : table.keys) {
        if (!key.func.empty()) {
            if (expansion)
                file.set(key.name, shown_value(block, table.field(key.name)));
        } else if (key.need == Need::ALWAYS || !is_free) {
            file.set(key.name, key_value(key, block));
        }
    }
    if (table.name == "extent" && table.version == 1 && !is_free)
        file.set("te_bitmap", bitmap_text(super, block));
    if (table.items && !is_free)
        file.set(table.items->name, items_text(table, super, block));
    return file;
}

} // namespace tier_test
