#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* A mapfile of GNU ddrescue: which bytes of a device have been copied. */
class Mapfile {
public:
    /* Of a device of which everything has been copied: there is no mapfile. */
    Mapfile() = default;
    explicit Mapfile(const std::string &path);

    /* Whether all of so many bytes from `offset` on, which is not negative, are finished. */
    bool is_finished(int64_t offset, size_t length) const;

    /* The byte after the last that it describes: the size of the device, where ddrescue knew it. */
    uint64_t end() const { return end_; }

private:
    struct Stretch {
        uint64_t start;
        uint64_t end; /* the byte after the last */
    };

    void add(uint64_t start, uint64_t length, bool is_finished);

    bool is_any_ = false;
    uint64_t end_ = 0;
    std::vector<Stretch> finished_; /* in ascending order, apart from each other */
};

/* The status of a stretch in a mapfile. */
enum class CopyStatus : char { not_tried = '?', failed = '-', finished = '+' };

/* Makes a mapfile of a device of `size` bytes, stretch by stretch. What no stretch covers has not
 * been tried. */
class MapfileWriter {
public:
    MapfileWriter(uint64_t size, std::function<void(std::string_view text)> write);

    /* Stretches come in ascending order; what is already covered, or lies past the end, is left
     * out. */
    void add(uint64_t start, uint64_t length, CopyStatus status);

    /* Must be called after the last. */
    void finish();

private:
    void extend(uint64_t end, CopyStatus status);
    void flush();

    uint64_t size_;
    std::function<void(std::string_view text)> write_;
    uint64_t start_ = 0; /* of the stretch that is not yet written */
    uint64_t end_ = 0;
    CopyStatus status_ = CopyStatus::not_tried;
};

} // namespace tierctl
