#pragma once

namespace CLI {
class App;
}

/* One function per subcommand: adds it to `app` with its options and, as its callback, its run. */
void tierctl_add_sample(CLI::App &app);
