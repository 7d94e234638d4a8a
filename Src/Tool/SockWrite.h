// One send through a socket of any class, for tools that are handed a CSock.
#pragma once

#include <Ravelo/Sock.h>

/// The object's type code says which class it is; one that cannot send to a connected peer fails an
/// assertion. What is logged, and what the results mean, is that class's: bytes sent, 0 try again, negative
/// failed.
namespace Veltro::Ravelo::SockWrite {

/// Whether a type code is that of a class that send() and writeV() know and that keeps no message boundaries.
bool isStream(unsigned type);

/// Sends a buffer once.
/// @param data not null; only read. @param length_bytes above 0.
int send(CSock& sock, const char* data, unsigned length_bytes);

/// Sends the elements of a list with one call; on a datagram socket as one datagram.
/// @param elements not null; they and their data are only read. @param count above 0.
int writeV(CSock& sock, const iovec* elements, int count);

}  // namespace Veltro::Ravelo::SockWrite
