#pragma once

#include <Plinth/Defs.h>

#include <string>

namespace Veltro::Plinth {

/// The process's table of named threads: every running CThread stands in it. Any thread may call.
class PLINTH_API CThreadManager {
public:
    /// The name of a running thread, or an empty text when the id belongs to no CThread.
    static std::string getThreadNameByID(unsigned long thread_id);

private:
    friend class CThread;
    static void addThread(unsigned long thread_id, const char* name);
    static void removeThread(unsigned long thread_id);
};

}  // namespace Veltro::Plinth
