#pragma once

#include "zu_tierctl/diff/diff.h"

#include <memory>

namespace tierctl {

/* Reports on standard output: as text for people, or as JSON, a line for each difference. */
std::unique_ptr<DiffReport> make_text_report();
std::unique_ptr<DiffReport> make_json_report();

} // namespace tierctl
