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
    void add(const void *part, size_t length) { crcs_.push_back(zutr_crc32(part, length)); }
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

ChangeHead head_of(const Change &change)
{
    return {stored_name(change.table),
            change.no,
            change.offset,
            change.unreadable ? 1U : 0U,
            zutr_crc32(change.before.data(), SIZE_4K),
            zutr_crc32(change.after.data(), SIZE_4K),
            {}};
}

/* Appends to a new file. */
class Appender {
public:
    explicit Appender(NewFile &file, size_t at) : file_(file), at_(static_cast<int64_t>(at)) {}

    void append(const void *data, size_t length)
    {
        if (length != 0) {
            file_.write(at_, data, length);
        }
        at_ += static_cast<int64_t>(length);
    }

private:
    NewFile &file_;
    int64_t at_;
};

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
        undo.plan.resize(head.plan_length);
        take(undo.plan.data(), undo.plan.size());
        checksum.add(undo.plan.data(), undo.plan.size());
        undo.changes.resize(head.changes);
        for (Change &change : undo.changes) {
            read_change(change, checksum);
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

    void read_change(Change &change, PartsChecksum &checksum)
    {
        ChangeHead head{};
        take(&head, sizeof(head));
        checksum.add(&head, sizeof(head));
        take(change.before.data(), SIZE_4K);
        take(change.after.data(), SIZE_4K);
        if (zutr_crc32(change.before.data(), SIZE_4K) != head.crc_before ||
            zutr_crc32(change.after.data(), SIZE_4K) != head.crc_after) {
            refuse("is damaged: the checksum of a block does not match its content");
        }
        change.table = name_of(head.table);
        change.no = head.no;
        change.offset = head.offset;
        change.unreadable = head.unreadable != 0;
    }

    void take(void *data, size_t length)
    {
        errno = EIO; /* the reason when the file has been cut short meanwhile */
        if (length != 0 && zutr_readn(fd_, data, length, at_) < 0) {
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

void write_undo_file(NewFile &file, const UndoFile &undo)
{
    Head head{{}, VERSION, 0, undo.size, undo.plan.size(), undo.changes.size(), {}};
    std::ranges::copy(MAGIC, head.magic.begin());
    PartsChecksum checksum;
    checksum.add(&head, sizeof(head));
    Appender rest(file, sizeof(head));
    const auto append_part = [&](const void *part, size_t length) {
        checksum.add(part, length);
        rest.append(part, length);
    };
    append_part(undo.super_block.data(), SIZE_4K);
    append_part(undo.plan.data(), undo.plan.size());
    for (const Change &change : undo.changes) {
        const ChangeHead change_head = head_of(change);
        append_part(&change_head, sizeof(change_head));
        rest.append(change.before.data(), SIZE_4K);
        rest.append(change.after.data(), SIZE_4K);
    }
    head.crc = checksum.get();
    file.write(0, &head, sizeof(head));
    require_written(file);
    file.commit();
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
