#include "salvage_tree.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace tier_test {

namespace fs = std::filesystem;
using Json = nlohmann::json;

namespace {

std::string read_whole(const fs::path &path)
{
    std::string bytes(fs::file_size(path), '\0');
    std::ifstream file(path, std::ios::binary);
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    EXPECT_TRUE(file.good()) << path;
    return bytes;
}

Json line_of(const HeldPiece &piece, std::uint64_t at, std::uint64_t length, const char *state)
{
    Json line{{"file", piece.file},   {"offset", piece.offset + at},
              {"length", length},     {"device_offset", piece.device + at},
              {"clean", piece.clean}, {"state", state},
              {"by", piece.by},       {"extent", piece.extent}};
    if (piece.conflict != HeldPiece::NO_CONFLICT)
        line["conflict"] = piece.conflict;
    return line;
}

} // namespace

SalvageTree read_tree(const std::string &directory)
{
    SalvageTree tree;
    for (const auto &entry : fs::recursive_directory_iterator(directory)) {
        const fs::file_type type = entry.symlink_status().type();
        const std::string name = entry.path().lexically_relative(directory);
        if (type == fs::file_type::directory)
            continue;
        EXPECT_EQ(type, fs::file_type::regular) << name;
        if (name != "manifest.ndjson")
            tree.files[name] = read_whole(entry.path());
    }
    for (const std::string &line : lines_of(read_file(directory + "/manifest.ndjson")))
        tree.manifest.push_back(Json::parse(line));
    EXPECT_FALSE(tree.manifest.empty());
    if (!tree.manifest.empty())
        tree.manifest.erase(tree.manifest.begin());
    return tree;
}

SalvageTree expected_tree(const std::vector<HeldPiece> &pieces,
                          const std::set<std::uint64_t> &unreadable)
{
    SalvageTree tree;
    for (const HeldPiece &piece : pieces) {
        std::string bytes;
        std::vector<Json> lines;
        const std::uint64_t size = piece.length - piece.cut;
        for (std::uint64_t at = 0; at < size; at += BLOCK_SIZE) {
            const std::uint64_t length = std::min<std::uint64_t>(BLOCK_SIZE, size - at);
            const bool is_lost = unreadable.contains(piece.device + at);
            const char *state = is_lost ? "unreadable" : "copied";
            bytes += is_lost ? std::string(length, '\0') : sample_page(piece, at).substr(0, length);
            if (lines.empty() || lines.back()["state"] != state)
                lines.push_back(line_of(piece, at, 0, state));
            lines.back()["length"] = lines.back()["length"].get<std::uint64_t>() + length;
        }
        if (piece.cut != 0)
            lines.back()["cut"] = piece.cut;
        for (Json &line : lines) {
            if (line["state"] == "copied") {
                const std::string copied =
                    bytes.substr(line["offset"].get<std::uint64_t>() - piece.offset,
                                 line["length"].get<std::uint64_t>());
                const auto *data = reinterpret_cast<const std::uint8_t *>(copied.data());
                line["crc32"] = text("%08x", crc32({data, copied.size()}));
            }
            tree.manifest.push_back(line);
        }
        std::string &file = tree.files[piece.file];
        if (file.size() < piece.offset + size)
            file.resize(piece.offset + size);
        file.replace(piece.offset, size, bytes);
    }
    return tree;
}

std::vector<HeldPiece> only(const std::vector<HeldPiece> &pieces,
                            const std::function<bool(const HeldPiece &)> &is_wanted)
{
    std::vector<HeldPiece> wanted;
    std::ranges::copy_if(pieces, std::back_inserter(wanted), is_wanted);
    return wanted;
}

void expect_same(const SalvageTree &is, const SalvageTree &expected)
{
    const auto names_of = [](const SalvageTree &tree) {
        std::vector<std::string> names;
        for (const auto &[name, bytes] : tree.files)
            names.push_back(name);
        return names;
    };
    EXPECT_EQ(names_of(is), names_of(expected));
    for (const auto &[name, bytes] : expected.files) {
        const auto file = is.files.find(name);
        EXPECT_TRUE(file != is.files.end() && file->second == bytes) << name;
    }
    ASSERT_EQ(is.manifest.size(), expected.manifest.size());
    for (std::size_t i = 0; i < is.manifest.size(); ++i)
        EXPECT_EQ(is.manifest[i], expected.manifest[i]) << i;
}

std::string total_line(const SalvageTree &tree)
{
    std::uint64_t bytes = 0;
    for (const Json &line : tree.manifest)
        bytes += line["state"] == "copied" ? line["length"].get<std::uint64_t>() : 0;
    const auto of = [bytes](unsigned shift) {
        return static_cast<double>(bytes) / static_cast<double>(std::uint64_t{1} << shift);
    };
    const std::string size = bytes < 1024  ? text("%lu bytes", bytes)
                             : bytes < MIB ? text("%.1f KiB", of(10))
                                           : text("%.1f MiB", of(20));
    return text("zu_tierctl: copied %s of %zu file%s\n", size.c_str(), tree.files.size(),
                tree.files.size() == 1 ? "" : "s");
}

std::vector<std::string> small_sample(const std::string &layout)
{
    std::vector<std::string> args{"--data", "--inodes", "8", "--block-size"};
    const std::vector<std::string> rest =
        layout == "v3"
            ? std::vector<std::string>{"8192", "--shards", "512", "--extents",
                                       "512",  "--blocks", "512"}
            : std::vector<std::string>{"262144", "--blocks", layout == "v1" ? "24" : "12"};
    args.insert(args.end(), rest.begin(), rest.end());
    return args;
}

} // namespace tier_test
