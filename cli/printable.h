#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace cli {

// A text as a terminal may show it.
struct Printable {
    std::string text;       // UTF-8 without anything that a terminal would act on
    std::size_t width = 0;  // columns it takes
};

// Makes visible what would move the cursor, change colours, reverse the reading direction or hide itself:
// control characters and invalid bytes become "\x1b", invisible and directional characters "\u202e".
// A name that somebody gave to a share must not be able to rewrite the screen.
Printable MakePrintable(std::string_view text);

}  // namespace cli
