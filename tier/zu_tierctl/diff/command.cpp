#include "zu_tierctl/commands.h"
#include "zu_tierctl/device/output.h"
#include "zu_tierctl/diff/diff.h"
#include "zu_tierctl/subcommand.h"

#include <memory>
#include <string>

namespace tierctl {

namespace {

/* The same as those of diff(1). */
constexpr int STATUS_DIFFERENT = 1;
constexpr int STATUS_TROUBLE = 2;

constexpr const char DIFF_FOOTER[] =
    "An entry differs when any byte of its 4096 does; each of its fields that differ is shown,\n"
    "as is every stretch of bytes that belong to no field. What cannot be read is a difference.\n"
    "Neighbours are shown as one, with the fields of the first, when all are zero in A or in B,\n"
    "or when the same fields differ.\n"
    "Exit status: 0 no differences, 1 differences, 2 no comparison.\n"
    "\n"
    "JSON lines, by kind:\n"
    "  entry       table, no (the first), count, offset_a, offset_b, state_a, state_b: sound,\n"
    "              damaged or zero; fields of the first: [{key, a, b}]\n"
    "  unreadable  table, no (the first), count, a and b: what is wrong with it, or null\n"
    "  only        table, no (the first), count, in: \"a\" or \"b\"\n"
    "  layout      a, b: the layouts; nothing else is compared\n"
    "With --summary: kind, table, no (the first), last, count, text.\n"
    "\n"
    "Example, before and after a repair:\n"
    "  zu_tierctl save /dev/nvme0n1 before.img\n"
    "  zu_tier -l tier.log -p /dev/nvme0n1 -c repair_inode -f inode.json -y\n"
    "  zu_tierctl diff before.img /dev/nvme0n1";

struct DiffOptions {
    std::string a;
    std::string b;
    bool json = false;
    bool all = false;
    bool summary = false;
    std::string super_file;
};

} // namespace

void add_diff(Subcommand &command)
{
    const auto options = std::make_shared<DiffOptions>();
    command.describe("Show which entries of two devices or saved files differ", DIFF_FOOTER);
    command.operand("A", options->a, "Block device, image or saved file");
    command.operand("B", options->b, "The same; both are only read");
    command.flag("--json", options->json, "JSON lines: one for each difference");
    command.flag("--all", options->all,
                 "Each entry by itself: neighbours that differ alike are\n"
                 "shown as one by default");
    command.flag("--summary", options->summary,
                 "Only how many differ in each table, and from where to where");
    command.exclude("--summary", {"--all"});
    command.super_option(options->super_file);
    const auto run = [options] {
        const auto report = options->summary ? make_summary_report(options->json)
                            : options->json  ? make_json_report()
                                             : make_text_report();
        const bool equal =
            diff(options->a, options->b, *report, options->super_file, !options->all);
        report->finish();
        finish_output();
        return equal ? 0 : STATUS_DIFFERENT;
    };
    command.run(run, STATUS_TROUBLE);
}

} // namespace tierctl
