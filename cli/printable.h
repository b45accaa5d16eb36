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
// ASCII controls and invalid bytes become "\x1b", other controls, directional characters and what is drawn as
// nothing or as another blank "\u202e". Combining marks stay, and so do letters that are read from right to
// left: a terminal that follows their direction may draw cells beside them in another order. A name that
// somebody gave to a share must not be able to rewrite the screen.
Printable MakePrintable(std::string_view text);

}  // namespace cli
