#pragma once

#include <string>

// The page docs/ref/errors.md, made from include/error_table.h.
std::string ErrorReferencePage();
