// The system's socket headers, included in one place.
#pragma once

#if defined(_WIN32)
// Room for 4096 sockets in a descriptor set; must precede the first include of winsock.
#define FD_SETSIZE 4096
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#endif
