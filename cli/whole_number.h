#pragma once

namespace CLI {
class Validator;
}

namespace cli {

constexpr int kMostNumber = 2147483647;

// For `transform` of an option that holds a whole number: refuses everything but decimal digits and what is
// not from `least` to `most`, and takes leading zeros away, which would make the number an octal one.
CLI::Validator WholeNumber(int least, int most);

// The same for the id of a share, a server, a camera or whatever else is listed with one; 0 is this server.
CLI::Validator Id();

}  // namespace cli
