#pragma once

namespace tierctl {

/* Style and script of every page: page.css and page.js. Both are free of '<' and '&', so that the
 * page is well-formed XML, too. */
extern const char MAP_STYLE[];
extern const char MAP_SCRIPT[];

} // namespace tierctl
