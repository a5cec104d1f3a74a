#include "zu_tierctl/template/json.h"

#include <cstddef>
#include <utility>

namespace tierctl {

void TemplateJson::value(std::string_view key, std::string_view json)
{
    begin_member(key);
    text_ += json;
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
