// The hardening of the programs, read from the executables.

#include "elf_file.h"
#include "run.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

using namespace tier_test;

namespace {

class Hardening : public testing::TestWithParam<const char *> {
protected:
    const ElfFile elf{program(GetParam())};

    std::set<std::string> imports() const
    {
        std::set<std::string> names;
        for (const ElfFile::Symbol &symbol : elf.symbols(".dynsym")) {
            if (symbol.st_shndx == SHN_UNDEF)
                names.emplace(symbol.name);
        }
        return names;
    }
};

INSTANTIATE_TEST_SUITE_P(, Hardening, testing::Values("zu_tier", "zu_tierctl"),
                         [](const auto &test) { return std::string(test.param); });

TEST_P(Hardening, ProgramIsPositionIndependent)
{
    EXPECT_EQ(elf.header().e_type, ET_DYN);
    EXPECT_TRUE(elf.dynamic(DT_FLAGS_1) & DF_1_PIE);
    EXPECT_EQ(elf.dynamic(DT_TEXTREL), 0);
}

TEST_P(Hardening, RelocationsAreReadOnlyBeforeMain)
{
    EXPECT_TRUE(elf.dynamic(DT_FLAGS) & DF_BIND_NOW);
    EXPECT_TRUE(elf.dynamic(DT_FLAGS_1) & DF_1_NOW);
    const auto read_only = elf.segments(PT_GNU_RELRO);
    ASSERT_EQ(read_only.size(), 1);
    for (const char *name : {".got", ".dynamic", ".init_array", ".fini_array", ".data.rel.ro"}) {
        const Elf64_Shdr section = elf.section(name);
        EXPECT_GE(section.sh_addr, read_only[0].p_vaddr) << name;
        EXPECT_LE(section.sh_addr + section.sh_size, read_only[0].p_vaddr + read_only[0].p_memsz)
            << name;
    }
}

TEST_P(Hardening, NothingIsWritableAndExecutable)
{
    const auto stack = elf.segments(PT_GNU_STACK);
    ASSERT_EQ(stack.size(), 1);
    EXPECT_EQ(stack[0].p_flags, PF_R | PF_W);
    for (const Elf64_Phdr &segment : elf.segments())
        EXPECT_NE(segment.p_flags & (PF_W | PF_X), PF_W | PF_X) << std::hex << segment.p_vaddr;
}

TEST_P(Hardening, StackIsProtected) { EXPECT_TRUE(imports().contains("__stack_chk_fail")); }

TEST_P(Hardening, LibraryCallsAreChecked)
{
    const std::set<std::string> names = imports();
    for (const std::string name : {"memcpy", "printf", "snprintf", "vfprintf"})
        EXPECT_TRUE(names.contains("__" + name + "_chk")) << name;
    for (const std::string name : {"printf", "snprintf", "vfprintf"})
        EXPECT_FALSE(names.contains(name)) << name;
}

TEST_P(Hardening, IndexesAreChecked)
{
    const auto is_check = [](const ElfFile::Symbol &symbol) {
        return symbol.name.find("__glibcxx_assert_fail") != std::string_view::npos;
    };
    EXPECT_TRUE(std::ranges::any_of(elf.symbols(".symtab"), is_check));
}

#ifdef __x86_64__

bool begins_with(ConstByteSpan code, ConstByteSpan instruction)
{
    return std::ranges::equal(code.first(instruction.size()), instruction);
}

TEST_P(Hardening, LargeFramesAreProbed)
{
    constexpr std::uint8_t PROBE[] = {0x48, 0x83, 0x0C, 0x24, 0x00}; // orq $0,(%rsp)
    EXPECT_FALSE(std::ranges::search(elf.contents(elf.section(".text")), PROBE).empty());
}

TEST_P(Hardening, ReturnsMayBeTraced)
{
    EXPECT_TRUE(elf.property(GNU_PROPERTY_X86_FEATURE_1_AND) & GNU_PROPERTY_X86_FEATURE_1_SHSTK);
}

// The program cannot be marked for it: the C library's start-up code is no part of this.
TEST_P(Hardening, JumpsThroughPointersMeetLandingPads)
{
    constexpr std::uint8_t LANDING_PAD[] = {0xF3, 0x0F, 0x1E, 0xFA}; // endbr64
    const std::set<std::string_view> of_the_c_library{"_start", "_init", "_fini"};
    std::size_t checked = 0;
    for (const ElfFile::Symbol &symbol : elf.symbols(".symtab")) {
        if (ELF64_ST_TYPE(symbol.st_info) != STT_FUNC || symbol.st_shndx == SHN_UNDEF ||
            ELF64_ST_BIND(symbol.st_info) == STB_LOCAL || of_the_c_library.contains(symbol.name))
            continue;
        const ConstByteSpan code = elf.memory(symbol.st_value, sizeof(LANDING_PAD));
        EXPECT_TRUE(begins_with(code, LANDING_PAD)) << symbol.name;
        checked++;
    }
    EXPECT_GT(checked, 10);
}

#endif

} // namespace
