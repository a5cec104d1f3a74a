#pragma once

// An executable as its file has it: the headers, tables and marks that the loader goes by.

#include "bytes.h"

#include <cstdint>
#include <elf.h>
#include <string>
#include <string_view>
#include <vector>

namespace tier_test {

class ElfFile {
public:
    // A symbol, by what it is and where.
    struct Symbol : Elf64_Sym {
        std::string_view name;
    };

    explicit ElfFile(const std::string &path);

    Elf64_Ehdr header() const { return at<Elf64_Ehdr>(0); }
    std::vector<Elf64_Phdr> segments() const;
    std::vector<Elf64_Phdr> segments(std::uint32_t type) const;

    // Its header, which must be there, and its contents.
    Elf64_Shdr section(std::string_view name) const;
    ConstByteSpan contents(const Elf64_Shdr &section) const;

    // The value of a tag of the dynamic section, 0 where that does not have it.
    std::uint64_t dynamic(std::int64_t tag) const;

    // Those of ".symtab", or of ".dynsym".
    std::vector<Symbol> symbols(std::string_view section) const;

    // The bits of a property of the processor's kind, 0 where the program does not carry it.
    std::uint32_t property(std::uint32_t type) const;

    // The bytes that lie at an address of the program.
    ConstByteSpan memory(std::uint64_t address, std::size_t size) const;

private:
    template <class T>
    T at(std::uint64_t offset) const;
    template <class T>
    std::vector<T> table(std::uint64_t offset, std::uint64_t count) const;
    std::string_view text(const Elf64_Shdr &strings, std::uint64_t offset) const;

    std::string bytes_;
};

} // namespace tier_test
