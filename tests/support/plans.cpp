#include "plans.h"

namespace tier_test {

namespace {

std::string text_of(ConstByteSpan bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

// Appends a part, and its CRC to those of the parts.
void add_part(std::string &file, std::vector<std::uint8_t> &crcs, ConstByteSpan part)
{
    file += text_of(part);
    crcs.resize(crcs.size() + 4);
    put_u32(crcs, crcs.size() - 4, crc32(part));
}

} // namespace

std::string base64(ConstByteSpan bytes)
{
    constexpr char DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        std::uint32_t bits = 0;
        for (std::size_t k = 0; k < 3; ++k)
            bits = bits << 8 | (i + k < bytes.size() ? bytes[i + k] : 0U);
        for (std::size_t k = 0; k < 4; ++k)
            text += i + k <= bytes.size() ? DIGITS[bits >> (18 - 6 * k) & 63] : '=';
    }
    return text;
}

std::string plan_header(const PlannedDevice &device)
{
    return R"({"plan":1,"zu_tierctl":"0","device":"/dev/x","layout":")" + device.layout +
           R"(","size":)" + std::to_string(device.size) + R"(,"super_block":")" +
           base64(device.super_block) + "\"}\n";
}

std::string plan_step(const PlanStep &step)
{
    std::string line = R"({"table":")" + step.table + R"(","no":)" + std::to_string(step.no) +
                       R"(,"offset":)" + std::to_string(step.offset) + R"(,"action":")" +
                       step.action + R"(","reason":")" + step.reason + '"';
    if (step.action == "leave")
        return line + "}\n";
    line += R"(,"class":")" + step.certainty + R"(","lost":")" + step.lost + R"(",)";
    line +=
        step.unreadable ? R"("unreadable":true)" : R"("crc":)" + std::to_string(crc32(step.before));
    line +=
        step.keys.empty() ? R"(,"block":")" + base64(step.after) + '"' : R"(,"keys":)" + step.keys;
    return line + "}\n";
}

std::string plan_text(const PlannedDevice &device, const std::vector<PlanStep> &steps)
{
    std::string text = plan_header(device);
    for (const PlanStep &step : steps)
        text += plan_step(step);
    return text;
}

std::string undo_file(const PlannedDevice &device, const std::string &plan,
                      const std::vector<PlanStep> &steps)
{
    std::array<std::uint8_t, 64> head{};
    put_text(head, 0, "ZUTRUNDO");
    put_u32(head, 8, 1);
    put_u64(head, 16, device.size);
    put_u64(head, 24, plan.size());
    put_u64(head, 32, steps.size());
    std::string file;
    std::vector<std::uint8_t> crcs;
    add_part(file, crcs, head);
    add_part(file, crcs, device.super_block);
    add_part(file, crcs, {reinterpret_cast<const std::uint8_t *>(plan.data()), plan.size()});
    for (const PlanStep &step : steps) {
        std::array<std::uint8_t, 64> change{};
        put_text(change, 0, step.table);
        put_u64(change, 16, step.no);
        put_u64(change, 24, static_cast<std::uint64_t>(step.offset));
        put_u32(change, 32, step.unreadable ? 1 : 0);
        put_u32(change, 36, crc32(step.before));
        put_u32(change, 40, crc32(step.after));
        add_part(file, crcs, change);
        file += text_of(step.before) + text_of(step.after);
    }
    std::array<std::uint8_t, 4> crc{};
    put_u32(crc, 0, crc32(crcs));
    return file.replace(12, crc.size(), text_of(crc));
}

} // namespace tier_test
