#include "zu_tierctl/check/runs.h"

#include "zu_tierctl/device/sum.h"
#include "zu_tierctl/device/text.h"

#include <algorithm>

namespace tierctl {

namespace {

/* Whether later findings may still continue the run, now that there is a finding at `slot`. */
bool may_go_on(const Finding &run, const Finding &now)
{
    return run.table == now.table && (now.slot == run.last_slot || now.slot == run.last_slot + 1 ||
                                      now.joins == run.joins_end);
}

bool continues(const Finding &run, const Finding &next)
{
    return next.joins == run.joins_end && next.kind.name == run.kind.name &&
           next.table == run.table && next.unit == run.unit && next.zero == run.zero;
}

/* The run begins at its lowest number, whichever finding came first. */
void join(Finding &run, const Finding &next)
{
    const Finding &low = next.no < run.no ? next : run;
    const Finding &high = next.last > run.last ? next : run;
    Finding joined = low;
    joined.last = high.last;
    joined.last_slot = high.last_slot;
    joined.joins = run.joins;
    joined.joins_end = next.joins_end;
    joined.count = add_limited(run.count, next.count);
    joined.one_bit = add_limited(run.one_bit, next.one_bit);
    joined.two_bits = add_limited(run.two_bits, next.two_bits);
    joined.varied = run.varied || next.text != run.text;
    run = std::move(joined);
}

} // namespace

void Runs::add(const Finding &finding)
{
    end_before(finding);
    std::string alike = finding.alike.empty() ? text_shape(finding.text) : finding.alike;
    const auto run = std::ranges::find_if(open_, [&](const Run &open) {
        return continues(open.whole, finding) && open.alike == alike;
    });
    if (run != open_.end()) {
        join(run->whole, finding);
    } else {
        open_.push_back({finding, std::move(alike)});
    }
}

void Runs::end()
{
    for (const Run &run : open_) {
        use_(run.whole);
    }
    open_.clear();
}

void Runs::end_before(const Finding &finding)
{
    const auto ended = std::stable_partition(
        open_.begin(), open_.end(), [&](const Run &run) { return may_go_on(run.whole, finding); });
    for (auto run = ended; run != open_.end(); ++run) {
        use_(run->whole);
    }
    open_.erase(ended, open_.end());
}

} // namespace tierctl
