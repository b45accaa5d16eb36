#pragma once

#include <cstddef>
#include <functional>

#include "pavane/http_post.h"

namespace pavane {

// Sends `count` posts, several at the same time, so that a server that does not answer holds up no other.
//   make   gives the post of an index, just before it is sent
//   take   gets what became of it as soon as that is known: in no particular order, each index once
// Connections are kept between calls and opened anew after a fork, as with SendHttpPost, but are others than
// that function's. Blocks until all are done; what `make` or `take` throws ends it, with the rest undone.
void SendHttpPosts(std::size_t count, const std::function<HttpPost(std::size_t)>& make,
                   const std::function<void(std::size_t, const HttpReply&)>& take);

}  // namespace pavane
