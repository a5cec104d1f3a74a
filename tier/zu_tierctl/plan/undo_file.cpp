#include "zu_tierctl/plan/undo_file.h"

#include "common/zutr_crc32.h"
#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/fd.h"
#include "zu_tierctl/device/in_use.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <span>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <utility>

namespace tierctl {

namespace {

static_assert(std::endian::native == std::endian::little);

constexpr std::string_view MAGIC = "ZUTRUNDO";
constexpr uint32_t VERSION = 1;

using Name = std::array<char, 16>;

struct Head {
    std::array<char, 8> magic;
    uint32_t version;
    uint32_t crc; /* of the parts */
    uint64_t device_size;
    uint64_t plan_length;
    uint64_t changes;
    std::array<uint8_t, 24> zero;
};
static_assert(sizeof(Head) == 64);

struct ChangeHead {
    Name table;
    uint64_t no;
    int64_t offset;
    uint32_t unreadable;
    uint32_t crc_before;
    uint32_t crc_after;
    std::array<uint8_t, 20> zero;
};
static_assert(sizeof(ChangeHead) == 64);

constexpr uint64_t CHANGE_SIZE = sizeof(ChangeHead) + 2 * uint64_t{SIZE_4K};

/* The checksum of the parts that were added. */
class PartsChecksum {
public:
    void add(const void *part, size_t length) { add(zutr_crc32(part, length)); }
    void add(uint32_t crc) { crcs_.push_back(crc); }
    uint32_t get() const { return zutr_crc32(crcs_.data(), crcs_.size() * sizeof(uint32_t)); }

private:
    std::vector<uint32_t> crcs_;
};

Name stored_name(std::string_view name)
{
    Name stored{};
    if (name.size() > stored.size()) {
        throw std::runtime_error(fmt::format("an undo file has no room for the name {}", name));
    }
    std::ranges::copy(name, stored.begin());
    return stored;
}

std::string_view name_of(const Name &stored)
{
    return {stored.data(), strnlen(stored.data(), stored.size())};
}

/* The blocks of a change one after the other. */
struct Pair {
    Block before;
    Block after;

    explicit Pair(const Change &change)
    {
        change.before.get(before.data());
        change.after.get(after.data());
    }
};
static_assert(sizeof(Pair) == 2 * SIZE_4K);

/* An undo file that is being read from its start to its end. */
class Reader {
public:
    Reader(const std::string &path, int fd) : path_(path), fd_(fd)
    {
        struct stat status {};
        if (fstat(fd, &status) != 0) {
            throw_errno("cannot open " + path);
        }
        if (!S_ISREG(status.st_mode)) {
            refuse("is no undo file");
        }
        size_ = static_cast<uint64_t>(status.st_size);
    }

    UndoFile read()
    {
        Head head = read_head();
        UndoFile undo;
        undo.size = head.device_size;
        PartsChecksum checksum;
        const uint32_t crc = std::exchange(head.crc, 0);
        checksum.add(&head, sizeof(head));
        take(undo.super_block.data(), SIZE_4K);
        checksum.add(undo.super_block.data(), SIZE_4K);
        undo.plan = take_plan(head.plan_length);
        checksum.add(undo.plan.crc);
        for (uint64_t left = head.changes; left > 0; left--) {
            undo.changes.push_back(read_change(checksum));
        }
        if (checksum.get() != crc) {
            refuse("is damaged: its checksum does not match its content");
        }
        return undo;
    }

private:
    [[noreturn]] void refuse(std::string_view why) const
    {
        throw std::runtime_error(fmt::format("{} {}", path_, why));
    }

    /* Only a file of the size that its head counts is read further. */
    Head read_head()
    {
        Head head{};
        if (size_ >= sizeof(head)) {
            take(&head, sizeof(head));
        }
        if (std::string_view(head.magic.data(), head.magic.size()) != MAGIC) {
            refuse("is no undo file");
        }
        if (head.version != VERSION) {
            refuse(fmt::format("is an undo file of version {}, which this program does not know",
                               head.version));
        }
        const uint64_t least = sizeof(Head) + SIZE_4K;
        const uint64_t rest = size_ - std::min(size_, least);
        if (size_ < least || head.plan_length > rest ||
            (rest - head.plan_length) % CHANGE_SIZE != 0 ||
            head.changes != (rest - head.plan_length) / CHANGE_SIZE) {
            refuse("is damaged: it has another size than its head says");
        }
        return head;
    }

    TextSum take_plan(uint64_t length)
    {
        TextSum plan;
        std::vector<char> piece(std::min<uint64_t>(length, SIZE_1M));
        while (plan.length < length) {
            piece.resize(std::min<uint64_t>(length - plan.length, piece.size()));
            take(piece.data(), piece.size());
            plan.add({piece.data(), piece.size()});
        }
        return plan;
    }

    Change read_change(PartsChecksum &checksum)
    {
        ChangeHead head{};
        take(&head, sizeof(head));
        checksum.add(&head, sizeof(head));
        Block before;
        Block after;
        take(before.data(), SIZE_4K);
        take(after.data(), SIZE_4K);
        if (zutr_crc32(before.data(), SIZE_4K) != head.crc_before ||
            zutr_crc32(after.data(), SIZE_4K) != head.crc_after) {
            refuse("is damaged: the checksum of a block does not match its content");
        }
        return {std::string(name_of(head.table)),
                head.no,
                head.offset,
                head.unreadable != 0,
                KeptBlock(before.data()),
                KeptBlock(after.data())};
    }

    void take(void *data, size_t length)
    {
        errno = EIO; /* the reason when the file has been cut short meanwhile */
        if (zutr_readn(fd_, data, length, at_) < 0) {
            throw_errno("cannot read " + path_);
        }
        at_ += static_cast<int64_t>(length);
    }

    const std::string &path_;
    int fd_;
    uint64_t size_ = 0;
    int64_t at_ = 0;
};

/* Throws unless what was written can be read again: there is no other way back. */
void require_written(NewFile &file)
{
    file.sync();
    try {
        Reader(file.path(), file.fd()).read();
    } catch (const std::exception &error) {
        throw std::runtime_error(
            fmt::format("nothing was written to the device: what {} takes does not read back: {}",
                        file.path(), error.what()));
    }
}

} // namespace

std::string Change::name() const { return fmt::format("{} {}", table, no); }

NewUndoFile::NewUndoFile(const std::string &path)
    : file_(path, Naming::new_name), end_(sizeof(Head) + SIZE_4K)
{
}

void NewUndoFile::append(const void *data, size_t length)
{
    file_.write(end_, data, length);
    end_ += static_cast<int64_t>(length);
}

void NewUndoFile::add_plan(std::string_view piece)
{
    plan_.add(piece);
    append(piece.data(), piece.size());
}

void NewUndoFile::finish(const UndoFile &undo)
{
    Head head{{}, VERSION, 0, undo.size, plan_.length, undo.changes.size(), {}};
    std::ranges::copy(MAGIC, head.magic.begin());
    PartsChecksum checksum;
    checksum.add(&head, sizeof(head));
    checksum.add(undo.super_block.data(), SIZE_4K);
    checksum.add(plan_.crc);
    for (const Change &change : undo.changes) {
        const Pair blocks(change);
        const ChangeHead change_head{stored_name(change.table),
                                     change.no,
                                     change.offset,
                                     change.unreadable ? 1U : 0U,
                                     zutr_crc32(&blocks.before, SIZE_4K),
                                     zutr_crc32(&blocks.after, SIZE_4K),
                                     {}};
        checksum.add(&change_head, sizeof(change_head));
        append(&change_head, sizeof(change_head));
        append(&blocks, sizeof(blocks));
    }
    head.crc = checksum.get();
    file_.write(sizeof(head), undo.super_block.data(), SIZE_4K);
    file_.write(0, &head, sizeof(head));
    require_written(file_);
    file_.commit();
}

UndoFile read_undo_file(const std::string &path)
{
    const Fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0) {
        throw_open_error(path);
    }
    return Reader(path, fd.get()).read();
}

} // namespace tierctl
