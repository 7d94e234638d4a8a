// Lists of the registered sockets of all pools, for the operator.
#pragma once

#include <cstdint>

namespace Veltro::Ravelo::SockDump {

/// See CNetThread::TraversalSock.
int traverse();
/// Logs one block for each of the descriptors; for every registered one when count is 0.
void dumpSocks(const int* fds, int count);
/// Logs one block for each socket of a handler; for every registered one when id is 0.
void dumpHandler(std::int64_t id);

}  // namespace Veltro::Ravelo::SockDump
