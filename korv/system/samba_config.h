#pragma once

#include <string>
#include <vector>

#include "korv/system/share_store.h"

// What Samba is told about the shares. Names and descriptions are people's own texts and must stay texts:
// none may end a line, open a section or be read as a variable.
namespace korv {

// True when Samba can have a share of that name at that path. Samba has no way of quoting, so that names with
// characters of its own (%<>*?|/\+=;:",[]), with two blanks in a row, or with a meaning (global, printers,
// ...) are not exported.
bool IsSambaExportable(const ShareRow& share);

// `text` as a value on one line: control characters become blanks, '%' becomes the full-width sign, broken
// UTF-8 the replacement character; no blank or backslash at the end; at most 256 characters.
std::string SambaComment(const std::string& text);

// The whole include file: a section for each share that can be exported.
std::string SambaSections(const std::vector<ShareRow>& shares);

// The names of the sections that a listing by testparm shows, without [global]; in its order.
std::vector<std::string> SectionsOfListing(const std::string& listing);

}  // namespace korv
