#pragma once

#include <cstdint>

namespace korv {

// Lasts as long as a call of a method, with the calls of other methods that it makes.
class RequestScope {
public:
    RequestScope();
    ~RequestScope();
    RequestScope(const RequestScope&) = delete;
    RequestScope& operator=(const RequestScope&) = delete;
};

// Tells the requests of this process apart, for what is to be looked up once for each; 0 outside of requests.
std::uint64_t CurrentRequest();

}  // namespace korv
