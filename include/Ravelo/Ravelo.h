// Every public header of the framework.
#pragma once

#include <Ravelo/Defs.h>
#include <Ravelo/NFile.h>
#include <Ravelo/NTimer.h>
#include <Ravelo/NetHandler.h>
#include <Ravelo/NetThread.h>
#include <Ravelo/SessionCache.h>
#include <Ravelo/SimulatorStream.h>
#include <Ravelo/Sock.h>
#include <Ravelo/SockAcceptor.h>
#include <Ravelo/SockAddr.h>
#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockAddrIPv6.h>
#include <Ravelo/SockAddrStorage.h>
#include <Ravelo/SockDgram.h>
#include <Ravelo/SockStream.h>
#include <Ravelo/SslX509.h>
#include <Ravelo/StrParser.h>
#include <Ravelo/StreamSender.h>
#include <Ravelo/TsMemory.h>
