#include "redundancy_health/exchange/rpc_request.h"

#include <string.h>

bool parse_rpc_request(const uint8_t* message, uint32_t size, RpcRequest* request) {
  if (message == nullptr) return false;
  request->source = reinterpret_cast<const char*>(message);
  const size_t source_size = strnlen(request->source, size);
  if (source_size == size) return false;
  request->destination = request->source + source_size + 1;
  const size_t rest = size - source_size - 1;
  return strnlen(request->destination, rest) < rest;
}
