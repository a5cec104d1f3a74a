#include "zu_tierctl/export/export.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/new_file.h"
#include "zu_tierctl/sql/database.h"
#include "zu_tierctl/sql/row_writer.h"
#include "zu_tierctl/sql/sql.h"

#include <algorithm>
#include <filesystem>
#include <fmt/core.h>
#include <list>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <vector>
#include <zstd.h>

namespace tierctl {

namespace fs = std::filesystem;

namespace {

constexpr size_t NODE_MAX = 250; /* with "node=" before it it must be the name of a file */

/* Compresses what is written to a new file. */
class ZstdFile {
public:
    explicit ZstdFile(const std::string &path)
        : file_(path, Naming::replace), stream_(ZSTD_createCCtx()), out_(ZSTD_CStreamOutSize())
    {
        if (stream_ == nullptr) {
            throw std::bad_alloc();
        }
        require(ZSTD_CCtx_setParameter(stream_.get(), ZSTD_c_checksumFlag, 1));
    }

    void write(std::string_view text) { compress(text, ZSTD_e_continue); }

    /* Must be called after the last text: the file is complete, and has no name yet. */
    void end()
    {
        compress("", ZSTD_e_end);
        file_.sync();
    }

    void commit() { file_.commit(); }

private:
    struct Free {
        void operator()(ZSTD_CCtx *stream) const { ZSTD_freeCCtx(stream); }
    };

    size_t require(size_t result) const
    {
        if (ZSTD_isError(result) != 0) {
            throw std::runtime_error(
                fmt::format("cannot compress {}: {}", file_.path(), ZSTD_getErrorName(result)));
        }
        return result;
    }

    /* Until everything is taken, and at the end everything is out. */
    void compress(std::string_view text, ZSTD_EndDirective directive)
    {
        ZSTD_inBuffer in = {text.data(), text.size(), 0};
        bool more = true;
        while (more) {
            ZSTD_outBuffer out = {out_.data(), out_.size(), 0};
            const size_t left = require(ZSTD_compressStream2(stream_.get(), &out, &in, directive));
            if (out.pos != 0) {
                file_.write(length_, out_.data(), out.pos);
                length_ += static_cast<int64_t>(out.pos);
            }
            more = directive == ZSTD_e_end ? left != 0 : in.pos < in.size;
        }
    }

    NewFile file_;
    std::unique_ptr<ZSTD_CCtx, Free> stream_;
    std::vector<uint8_t> out_;
    int64_t length_ = 0;
};

/* The name becomes that of a directory, and the value of a column. */
void require_node(const std::string &node)
{
    constexpr std::string_view LETTERS =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.";
    if (node.empty() || node.size() > NODE_MAX || node.front() == '.' ||
        node.find_first_not_of(LETTERS) != std::string::npos) {
        throw UsageError(fmt::format("--node takes a name of at most {} letters, digits, '-', '_' "
                                     "and '.', which does not begin with '.'",
                                     NODE_MAX));
    }
}

void make_directory(const fs::path &directory)
{
    std::error_code error;
    fs::create_directory(directory, error);
    if (error) {
        throw std::runtime_error(
            fmt::format("cannot create {}: {}", directory.string(), error.message()));
    }
}

} // namespace

void export_tables(const ExportOptions &options)
{
    require_node(options.node);
    const SqlDevices devices = open_devices({.devices = {options.device},
                                             .super_file = options.super_file,
                                             .mapfile = options.mapfile});
    Database database(devices);
    std::list<ZstdFile> files;
    make_directory(options.directory);
    for (const std::string &table : database.tables()) {
        fs::path directory = options.directory;
        for (const std::string &name : {"table=" + table, "node=" + options.node}) {
            directory /= name;
            make_directory(directory);
        }
        ZstdFile &file = files.emplace_back(directory / "part-0.ndjson.zst");
        Query rows = database.ask("select * from " + sql_name(table));
        while (rows.next()) {
            file.write(json_row(rows.statement()) + '\n');
        }
        file.end();
    }
    std::ranges::for_each(files, &ZstdFile::commit);
}

} // namespace tierctl
