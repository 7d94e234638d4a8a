#pragma once

#include <Plinth/Defs.h>

#include <string>

namespace Veltro::Plinth {

/// The process's table of named threads: a CThread stands in it while its body runs. Any thread may call.
class PLINTH_API CThreadManager {
public:
    /// The name of a running thread, whole; empty when the id belongs to no running CThread or memory is
    /// short.
    static std::string getThreadNameByID(unsigned long thread_id);

private:
    friend class CThread;
    static void addThread(unsigned long thread_id, const char* name);
    static void removeThread(unsigned long thread_id);
};

}  // namespace Veltro::Plinth
