#include "zu_tierctl/metrics/metrics.h"

#include "zu_tierctl/device/error.h"
#include "zu_tierctl/device/new_file.h"
#include "zu_tierctl/device/sum.h"
#include "zu_tierctl/device/text.h"
#include "zu_tierctl/usage/usage.h"

#include <cerrno>
#include <chrono>
#include <exception>
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tierctl {

namespace {

using Clock = std::chrono::steady_clock;

/* Every file of metrics begins with it. */
constexpr std::string_view FIRST = "# HELP zu_tier_check_success ";

/* A label of a sample: a quote, a backslash and a line end have another meaning in it. */
std::string label(std::string_view name, std::string_view value)
{
    std::string text = fmt::format("{}=\"", name);
    for (const char byte : valid_utf8(value)) {
        if (byte == '"' || byte == '\\') {
            text += '\\';
        }
        text += byte == '\n' ? std::string("\\n") : std::string(1, byte);
    }
    return text + '"';
}

/* The text of the metrics of a device: families, each with its samples after it. */
class Metrics {
public:
    explicit Metrics(const std::string &device) : device_(label("device", device)) {}

    void begin(std::string_view name, std::string_view help)
    {
        name_ = name;
        text_ += fmt::format("# HELP zu_tier_{0} {1}\n# TYPE zu_tier_{0} gauge\n", name, help);
    }

    /* `labels` of the sample beside the device, each after a comma. */
    template <class Number>
    void add(const std::string &labels, Number value)
    {
        text_ += fmt::format("zu_tier_{}{{{}{}}} {}\n", name_, device_, labels, value);
    }

    const std::string &text() const { return text_; }

private:
    std::string device_;
    std::string_view name_;
    std::string text_;
};

void add_run(bool success, Clock::time_point start, Metrics &metrics)
{
    metrics.begin("check_success", "Whether the last check could be completed.");
    metrics.add("", success ? 1 : 0);
    metrics.begin("check_timestamp_seconds", "When the last check ended.");
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    metrics.add("", std::chrono::duration<double>(now).count());
    metrics.begin("check_duration_seconds", "How long the last check took.");
    metrics.add("", std::chrono::duration<double>(Clock::now() - start).count());
}

void add_report(const Report &report, Metrics &metrics)
{
    metrics.begin("entries", "Entries of the tables by their state.");
    for (const auto &[table, counts] : report.counts()) {
        for (const CountColumn &column : COUNT_COLUMNS) {
            if (column.count != &Counts::entries) {
                metrics.add(
                    fmt::format(",{},{}", label("table", table), label("state", column.key)),
                    counts.*column.count);
            }
        }
    }
    metrics.begin("findings", "What the last check found, by kind.");
    for (const auto &[what, range] : report.ranges()) {
        const auto &[kind, table, unit] = what;
        metrics.add(fmt::format(",{},{},{},{}", label("table", table), label("unit", unit),
                                label("kind", kind),
                                label("severity", severity_name(range.severity))),
                    range.count);
    }
}

/* A sum of bytes for each brick, and one for what belongs to none that is known. */
void add_bytes(const Usage &usage, uint64_t DataSum::*bytes, Metrics &metrics)
{
    const std::string owner(usage.owner_table);
    uint64_t unknown = usage.orphans.*bytes;
    for (const OwnerUse &use : usage.owners) {
        if (use.is_known) {
            metrics.add(fmt::format(",{},{}", label(owner, std::to_string(use.no)),
                                    label("path", use.path)),
                        use.sum.data.*bytes);
        } else {
            unknown = add_limited(unknown, use.sum.data.*bytes);
        }
    }
    metrics.add(fmt::format(",{},{}", label(owner, "unknown"), label("path", "")), unknown);
}

void add_usage(const Usage &usage, Metrics &metrics)
{
    metrics.begin("cached_bytes", "Bytes of files in the cache.");
    add_bytes(usage, &DataSum::cached, metrics);
    metrics.begin("dirty_bytes", "Bytes of files in the cache that were not written back.");
    add_bytes(usage, &DataSum::dirty, metrics);
}

/* A name that was meant for something else is not taken away from it. */
void refuse_other(const std::string &file)
{
    if (file.empty()) {
        throw UsageError("--metrics takes the name of a file");
    }
    const Fd fd(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0 && errno == ENOENT) {
        return;
    }
    struct stat status {};
    std::string head(FIRST.size(), '\0');
    const bool is_file = fd.get() >= 0 && fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode);
    const ssize_t length = is_file ? read(fd.get(), head.data(), head.size()) : -1;
    if (length < 0 || (length > 0 && head != FIRST)) {
        throw UsageError(file + " exists and holds no metrics of a check");
    }
}

} // namespace

bool check_with_metrics(const CheckOptions &options, const std::string &file)
{
    refuse_other(file);
    NewFile output(file, Naming::replace);
    if (fchmod(output.fd(), 0644) != 0) { /* who collects it may be another user */
        throw_errno("cannot create " + file);
    }
    const Clock::time_point start = Clock::now();
    bool fine = false;
    Metrics found(options.device);
    std::exception_ptr failure;
    try {
        fine = check(options, [&found](const Report &report) { add_report(report, found); });
        add_usage(read_usage(options.device, options.super_file, options.mapfile), found);
    } catch (const std::exception &) {
        failure = std::current_exception();
        found = Metrics(options.device); /* rather nothing than half of it */
    }
    Metrics metrics(options.device);
    add_run(failure == nullptr, start, metrics);
    const std::string text = metrics.text() + found.text() + "# EOF\n";
    output.write(0, text.data(), text.size());
    output.commit();
    if (failure != nullptr) {
        std::rethrow_exception(failure);
    }
    return fine;
}

} // namespace tierctl
