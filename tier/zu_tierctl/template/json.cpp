#include "zu_tierctl/template/json.h"

#include "zu_tierctl/device/json.h"

#include <cstddef>
#include <utility>

namespace tierctl {

void TemplateJson::number(std::string_view key, uint64_t value)
{
    begin_member(key);
    text_ += std::to_string(value);
}

void TemplateJson::text(std::string_view key, std::string_view text)
{
    begin_member(key);
    text_ += json_text(text);
}

void TemplateJson::numbers(std::string_view key, std::span<const uint64_t> values)
{
    begin_member(key);
    const char *separator = "[";
    for (const uint64_t value : values) {
        text_ += separator + std::to_string(value);
        separator = ", ";
    }
    text_ += values.empty() ? "[]" : "]";
}

void TemplateJson::open_array(std::string_view key)
{
    begin_member(key);
    open('[', ']');
}

void TemplateJson::open_object()
{
    begin_line();
    open('{', '}');
}

void TemplateJson::close()
{
    const char closing = closing_.back();
    closing_.pop_back();
    if (!empty_) {
        text_ += '\n' + std::string(2 * closing_.size(), ' ');
    }
    text_ += closing;
    empty_ = false;
}

std::string TemplateJson::take()
{
    close();
    return std::move(text_) + '\n';
}

void TemplateJson::begin_line()
{
    text_ += empty_ ? "\n" : ",\n";
    text_ += std::string(2 * closing_.size(), ' ');
    empty_ = false;
}

void TemplateJson::begin_member(std::string_view key)
{
    begin_line();
    text_ += '"';
    text_ += key;
    text_ += "\": ";
}

void TemplateJson::open(char opening, char closing)
{
    text_ += opening;
    closing_ += closing;
    empty_ = true;
}

} // namespace tierctl
