#include "client/link.h"

#include <fmt/format.h>

namespace client {

Bytes ask(Link& link, const Request& request, const std::string& what) {
  const Reply reply = link.call(request);
  if (reply.result != kDone)
    throw Error(fmt::format("cannot {}: {}", what, resultText(reply.result, request.variable)));
  return reply.data;
}

void failOnReply(const std::string& what) {
  throw Error(fmt::format("cannot {}: the reply is not what was asked for; is this server a chassis?", what));
}

}  // namespace client
