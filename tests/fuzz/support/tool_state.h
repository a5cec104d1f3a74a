#pragma once

namespace tier_fuzz {

// Brings the tool's variables back to what they are when a process starts.
void forget_run();

} // namespace tier_fuzz
