#include "korv/framework/multipart.h"

#include <algorithm>
#include <cctype>

namespace korv {
namespace {

constexpr std::string_view kFormData = "multipart/form-data";
constexpr std::string_view kBoundaryKey = "boundary=";
constexpr std::string_view kDisposition = "content-disposition:";
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kHeaderEnd = "\r\n\r\n";
constexpr std::size_t kMaxBoundary = 70;
constexpr std::size_t kMaxParts = 32;

std::string Lower(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower;
}

// The value of name="..." in a Content-Disposition line, "filename" not being "name".
std::optional<std::string_view> NameOf(std::string_view line) {
    constexpr std::string_view kName = "name=\"";
    std::size_t at = line.find(kName);
    while (at != std::string_view::npos && (at == 0 || (line[at - 1] != ' ' && line[at - 1] != ';'))) {
        at = line.find(kName, at + 1);
    }
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view rest = line.substr(at + kName.size());
    const std::size_t quote = rest.find('"');
    if (quote == std::string_view::npos || quote == 0 ||
        rest.substr(0, quote).find('\\') != std::string_view::npos) {
        return std::nullopt;
    }
    return rest.substr(0, quote);
}

std::optional<FormPart> ParsePart(std::string_view part) {
    const std::size_t headerEnd = part.find(kHeaderEnd);
    if (headerEnd == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view headers = part.substr(0, headerEnd);
    while (!headers.empty()) {
        const std::size_t end = std::min(headers.find(kLineEnd), headers.size());
        const std::string_view line = headers.substr(0, end);
        if (Lower(line.substr(0, kDisposition.size())) == kDisposition) {
            const std::optional<std::string_view> name = NameOf(line);
            return name ? std::optional<FormPart>({*name, part.substr(headerEnd + kHeaderEnd.size())})
                        : std::nullopt;
        }
        headers.remove_prefix(std::min(end + kLineEnd.size(), headers.size()));
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> MultipartBoundary(std::string_view contentType) {
    const std::string lower = Lower(contentType);
    const std::size_t typeEnd = std::min(lower.find_first_of("; \t"), lower.size());
    const std::size_t key = lower.find(kBoundaryKey);
    if (lower.substr(0, typeEnd) != kFormData || key == std::string::npos) {
        return std::nullopt;
    }
    std::string_view boundary = contentType.substr(key + kBoundaryKey.size());
    if (boundary.starts_with('"')) {
        boundary = boundary.substr(1, boundary.find('"', 1) - 1);
    } else {
        boundary = boundary.substr(0, boundary.find_first_of("; \t"));
    }
    if (boundary.empty() || boundary.size() > kMaxBoundary) {
        return std::nullopt;
    }
    return std::string(boundary);
}

std::optional<std::vector<FormPart>> ParseMultipart(std::string_view body, const std::string& boundary) {
    const std::string first = "--" + boundary;
    const std::string next = std::string(kLineEnd) + first;
    if (!body.starts_with(first)) {
        return std::nullopt;
    }
    body.remove_prefix(first.size());
    std::vector<FormPart> parts;
    while (!body.starts_with("--")) {
        const std::size_t end = body.find(next);
        if (!body.starts_with(kLineEnd) || end == std::string_view::npos || parts.size() == kMaxParts) {
            return std::nullopt;
        }
        const std::optional<FormPart> part =
            ParsePart(body.substr(kLineEnd.size(), end - std::min(end, kLineEnd.size())));
        if (!part) {
            return std::nullopt;
        }
        parts.push_back(*part);
        body.remove_prefix(end + next.size());
    }
    return parts;
}

}  // namespace korv
