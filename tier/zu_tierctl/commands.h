#pragma once

namespace CLI {
class App;
}

namespace tierctl {

/* One function per subcommand: adds it to `app` with its options and, as its callback, its run. A
 * run that does not throw ends the program with 0, or with what the callback stores in `*status`,
 * which outlives `app`. */
void add_check(CLI::App &app, int *status);
void add_diff(CLI::App &app, int *status);
void add_map(CLI::App &app);
void add_revert(CLI::App &app);
void add_sample(CLI::App &app);
void add_save(CLI::App &app, int *status);
void add_template(CLI::App &app);

} // namespace tierctl
