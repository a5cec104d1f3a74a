#pragma once

namespace CLI {
class App;
}

namespace tierctl {

/* Each function adds a subcommand to `app`: its options, and a callback that runs it. When the
 * callback does not throw, the program ends with status 0, or with the one that the callback has
 * stored in `*status`, which has to outlive `app`. */
void add_check(CLI::App &app, int *status);
void add_diff(CLI::App &app, int *status);
void add_map(CLI::App &app);
void add_revert(CLI::App &app);
void add_sample(CLI::App &app);
void add_save(CLI::App &app, int *status);
void add_template(CLI::App &app);

} // namespace tierctl
