#pragma once

namespace CLI {
class App;
}

/* One function per subcommand: adds it to `app` with its options and, as its callback, its run. A
 * command whose result is more than success sets the exit status. */
void tierctl_add_check(CLI::App &app, int *status);
void tierctl_add_sample(CLI::App &app);
