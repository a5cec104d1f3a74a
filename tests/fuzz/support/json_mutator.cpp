#include "mutation.h"

#include <cstdlib>
#include <string>
#include <string_view>

namespace tier_fuzz {

namespace {

constexpr std::string_view PUNCTUATION = "{}[]:,";
constexpr std::string_view BLANKS = " \t\r\n";

// Where a token lies in the text.
struct Token {
    std::size_t begin;
    std::size_t end;
};

std::size_t end_of_string(std::string_view text, std::size_t at)
{
    for (at++; at < text.size() && text[at] != '"'; at++) {
        at += text[at] == '\\' ? 1 : 0;
    }
    return std::min(at + 1, text.size());
}

std::vector<Token> tokens_of(std::string_view text)
{
    std::vector<Token> tokens;
    std::size_t at = 0;
    while ((at = text.find_first_not_of(BLANKS, at)) < text.size()) {
        std::size_t end = at + 1;
        if (text[at] == '"') {
            end = end_of_string(text, at);
        } else if (PUNCTUATION.find(text[at]) == std::string_view::npos) {
            end = std::min(text.find_first_of("{}[]:,\" \t\r\n", at), text.size());
        }
        tokens.push_back({at, end});
        at = end;
    }
    return tokens;
}

// Among them the bounds of the numbers of entries that the targets' devices have.
constexpr std::string_view VALUES[] = {
    "7",
    "8",
    "null",
    "true",
    "false",
    "\"\"",
    "\"0x10000\"",
    "\"0x20000\"",
    "\"0x30000\"",
    "[]",
    "{}",
    "0",
    "1",
    "-1",
    "0.5",
    "1e3",
    "1e-400",
    "1e4000",
    "-0",
    "\"0x4558\"",
    "\"0x53\"",
    "\"0xffffffffffffffff\"",
    "\"0x1ffffffffffffffff\"",
};

// Another one in the place of `old`.
std::string some_value(Mutation &mutation, const std::string &old)
{
    if (mutation.once_in(4) && old.find_first_not_of("0123456789") == std::string::npos) {
        const std::uint64_t number = std::strtoull(old.c_str(), nullptr, 10);
        return std::to_string(mutation.once_in(2) ? number + 1 : number - 1);
    }
    if (mutation.once_in(3)) {
        return std::string(VALUES[mutation.below(std::size(VALUES))]);
    }
    std::string number = std::to_string(mutation.interesting());
    return mutation.once_in(6) ? "-" + number : number;
}

void assign(Bytes &text, const std::string &from, std::size_t most)
{
    text.assign(from.begin(),
                from.begin() + static_cast<std::ptrdiff_t>(std::min(from.size(), most)));
}

} // namespace

void Mutation::json(Bytes &text, std::size_t most)
{
    std::string all(text.begin(), text.end());
    const std::vector<Token> tokens = tokens_of(all);
    if (tokens.empty() || once_in(3)) {
        bytes(text, most);
        return;
    }
    const std::size_t which = below(tokens.size());
    const Token token = tokens[which];
    // A few tokens from there on: a member, an element, or what was none.
    const Token &last = tokens[std::min(which + below(5), tokens.size() - 1)];
    switch (below(6)) {
    case 0:
        all.erase(token.begin, last.end - token.begin);
        break;
    case 1:
        all.insert(token.begin, all.substr(token.begin, last.end - token.begin));
        break;
    case 2: {
        const Token other = tokens[below(tokens.size())];
        all.replace(token.begin, token.end - token.begin,
                    all.substr(other.begin, other.end - other.begin));
        break;
    }
    default:
        if (PUNCTUATION.find(all[token.begin]) == std::string_view::npos &&
            !(which + 1 < tokens.size() && all[tokens[which + 1].begin] == ':')) {
            all.replace(token.begin, token.end - token.begin,
                        some_value(*this, all.substr(token.begin, token.end - token.begin)));
        }
    }
    assign(text, all, most);
}

} // namespace tier_fuzz
