#include "korv/framework/module_loader.h"

#include <dlfcn.h>

#include <stdexcept>

namespace korv {
namespace {

constexpr const char* kTableSymbol = "GetAPITable";
constexpr const char* kStartSymbol = "OnModuleLoaded";

std::string LoaderError() {
    const char* const error = dlerror();
    return error != nullptr ? error : "unknown error";
}

void* Load(const std::string& path, ApiRegistry& registry) {
    void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        throw std::runtime_error(LoaderError());
    }
    const auto getTable = reinterpret_cast<KORV::GetAPITableFunction>(dlsym(library, kTableSymbol));
    if (getTable == nullptr) {
        throw std::runtime_error(LoaderError());
    }
    const KORV::APITableRow* const table = getTable();
    if (table == nullptr) {
        throw std::runtime_error("its method table is missing");
    }
    registry.Add(table);
    return library;
}

}  // namespace

void LoadModules(const std::vector<std::string>& paths, ApiRegistry& registry) {
    std::vector<void*> libraries;
    for (const std::string& path : paths) {
        try {
            libraries.push_back(Load(path, registry));
        } catch (const std::runtime_error& error) {
            throw std::runtime_error("module " + path + ": " + error.what());
        }
    }
    for (void* const library : libraries) {
        const auto start = reinterpret_cast<void (*)()>(dlsym(library, kStartSymbol));
        if (start != nullptr) {
            start();
        }
    }
}

}  // namespace korv
