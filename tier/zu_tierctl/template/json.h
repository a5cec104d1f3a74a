#pragma once

#include <string>
#include <string_view>

namespace tierctl {

/* A repair file, for people to edit: an object in the making, one key a line. */
class TemplateJson {
public:
    TemplateJson() { open('{', '}'); }

    /* A member whose value is JSON already. */
    void value(std::string_view key, std::string_view json);

    /* An array of objects and each object in it. */
    void open_array(std::string_view key);
    void open_object();
    void close();

    /* The whole document, when all that was opened but itself is closed. */
    std::string take();

private:
    void begin_line();
    void begin_member(std::string_view key);
    void open(char opening, char closing);

    std::string text_;
    std::string closing_; /* what closes each level, the outermost first */
    bool empty_ = true;   /* the innermost level, so far */
};

} // namespace tierctl
