// The pair of sockets over a loopback connection.
#include <Ravelo/SockAcceptor.h>
#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockStream.h>

#include "Core/WinPipe.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {

int createPair(CSockAcceptor& listener, CSockStream& writer, CSockStream& reader, bool block) {
    CSockAddrIPv4 address("127.0.0.1", 0);
    if (listener.Open(address) != 0 || listener.GetLocalAddr(&address) != 0) return -1;
    listener.SetBlockOpt(true);
    writer.SetBlockOpt(true);
    if (writer.Connect(address) != 0 || listener.Accept(reader) != 0) return -1;
    reader.SetBlockOpt(block);
    writer.SetBlockOpt(block);
    SocketApi::setNonBlocking(reader.GetHandle(), !block);
    SocketApi::setNonBlocking(writer.GetHandle(), !block);
    writer.SetSockNoDelay(true);
    return 0;
}

}  // namespace

int CWINPipe::Create(bool block) {
    CSockAcceptor listener;
    CSockStream writer;
    CSockStream reader;
    if (createPair(listener, writer, reader, block) != 0) return -1;
    m_read_fd = reader.Detach();
    m_write_fd = writer.Detach();
    return 0;
}

}  // namespace Veltro::Ravelo
