#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tierctl {

/* Bytes as a text of base64 (RFC 4648) with padding. */
std::string base64_text(std::span<const uint8_t> bytes);

/* The bytes of such a text. Nothing when it is none, or not the one that base64_text() gives. */
std::optional<std::vector<uint8_t>> base64_bytes(std::string_view text);

} // namespace tierctl
