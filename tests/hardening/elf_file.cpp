#include "elf_file.h"

#include "temp_dir.h"

#include <stdexcept>

namespace tier_test {

ElfFile::ElfFile(const std::string &path) : bytes_(read_file(path))
{
    if (!bytes_.starts_with(ELFMAG) || header().e_ident[EI_CLASS] != ELFCLASS64)
        throw std::runtime_error(path + " is no executable of 64 bits");
}

template <class T>
T ElfFile::at(std::uint64_t offset) const
{
    T value;
    if (bytes_.copy(reinterpret_cast<char *>(&value), sizeof(T), offset) != sizeof(T))
        throw std::out_of_range("the file ends before " + std::to_string(offset + sizeof(T)));
    return value;
}

template <class T>
std::vector<T> ElfFile::table(std::uint64_t offset, std::uint64_t count) const
{
    std::vector<T> rows;
    for (std::uint64_t i = 0; i < count; i++)
        rows.push_back(at<T>(offset + i * sizeof(T)));
    return rows;
}

std::string_view ElfFile::text(const Elf64_Shdr &strings, std::uint64_t offset) const
{
    return bytes_.c_str() + strings.sh_offset + offset;
}

std::vector<Elf64_Phdr> ElfFile::segments() const
{
    return table<Elf64_Phdr>(header().e_phoff, header().e_phnum);
}

std::vector<Elf64_Phdr> ElfFile::segments(std::uint32_t type) const
{
    std::vector<Elf64_Phdr> found = segments();
    std::erase_if(found, [type](const Elf64_Phdr &segment) { return segment.p_type != type; });
    return found;
}

Elf64_Shdr ElfFile::section(std::string_view name) const
{
    const auto sections = table<Elf64_Shdr>(header().e_shoff, header().e_shnum);
    const Elf64_Shdr &names = sections.at(header().e_shstrndx);
    for (const Elf64_Shdr &section : sections) {
        if (text(names, section.sh_name) == name)
            return section;
    }
    throw std::out_of_range("no section " + std::string(name));
}

ConstByteSpan ElfFile::contents(const Elf64_Shdr &section) const
{
    const auto *first = reinterpret_cast<const std::uint8_t *>(bytes_.data());
    return ConstByteSpan(first, bytes_.size()).subspan(section.sh_offset, section.sh_size);
}

std::uint64_t ElfFile::dynamic(std::int64_t tag) const
{
    const Elf64_Shdr dynamic = section(".dynamic");
    for (const Elf64_Dyn &entry :
         table<Elf64_Dyn>(dynamic.sh_offset, dynamic.sh_size / sizeof(Elf64_Dyn))) {
        if (entry.d_tag == tag)
            return entry.d_un.d_val;
    }
    return 0;
}

std::vector<ElfFile::Symbol> ElfFile::symbols(std::string_view name) const
{
    const Elf64_Shdr of = section(name);
    const auto sections = table<Elf64_Shdr>(header().e_shoff, header().e_shnum);
    const Elf64_Shdr &strings = sections.at(of.sh_link);
    std::vector<Symbol> result;
    for (const Elf64_Sym &symbol : table<Elf64_Sym>(of.sh_offset, of.sh_size / sizeof(Elf64_Sym)))
        result.push_back({symbol, text(strings, symbol.st_name)});
    return result;
}

std::uint32_t ElfFile::property(std::uint32_t type) const
{
    constexpr std::uint64_t ALIGNMENT = 8;
    for (const Elf64_Phdr &note : segments(PT_GNU_PROPERTY)) {
        std::uint64_t offset = note.p_offset + sizeof(Elf64_Nhdr) + sizeof(ELF_NOTE_GNU);
        while (offset < note.p_offset + note.p_filesz) {
            const auto size = at<std::uint32_t>(offset + 4);
            if (at<std::uint32_t>(offset) == type)
                return at<std::uint32_t>(offset + 8);
            offset += (8 + size + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
        }
    }
    return 0;
}

ConstByteSpan ElfFile::memory(std::uint64_t address, std::size_t size) const
{
    for (const Elf64_Phdr &segment : segments(PT_LOAD)) {
        if (address >= segment.p_vaddr && address + size <= segment.p_vaddr + segment.p_filesz) {
            const auto *first = reinterpret_cast<const std::uint8_t *>(bytes_.data());
            return {first + (segment.p_offset + address - segment.p_vaddr), size};
        }
    }
    throw std::out_of_range("nothing lies at " + std::to_string(address));
}

} // namespace tier_test
