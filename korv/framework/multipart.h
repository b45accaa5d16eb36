#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korv {

// One part of a multipart/form-data body. Views into the body.
struct FormPart {
    std::string_view name;
    std::string_view content;
};

// The boundary of a "multipart/form-data" content type; nothing for any other type and for a boundary that is
// not allowed.
std::optional<std::string> MultipartBoundary(std::string_view contentType);

// The parts of `body`. Nothing when it is malformed: not ended by its last boundary, a part without a name,
// or more parts than a request can need.
std::optional<std::vector<FormPart>> ParseMultipart(std::string_view body, const std::string& boundary);

}  // namespace korv
