#pragma once

#include "zu_tierctl/diff/diff.h"

#include <memory>

/* Reports on standard output: as text for people, or as JSON, a line for each difference. */
std::unique_ptr<tierctl_diff_report> tierctl_text_report();
std::unique_ptr<tierctl_diff_report> tierctl_json_report();
