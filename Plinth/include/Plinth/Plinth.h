// All of the base services.
#pragma once

#include <Plinth/Component.h>
#include <Plinth/Console.h>
#include <Plinth/Error.h>
#include <Plinth/File.h>
#include <Plinth/Function.h>
#include <Plinth/Log.h>
#include <Plinth/Mutex.h>
#include <Plinth/ReadWriteMutex.h>
#include <Plinth/Semaphore.h>
#include <Plinth/Thread.h>
#include <Plinth/ThreadManager.h>
#include <Plinth/Time.h>
#include <Plinth/TypeName.h>
